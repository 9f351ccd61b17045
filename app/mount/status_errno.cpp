#include "app/mount/status_errno.h"

#include <cerrno>

#include "frame/status_translation.h"

namespace app::mount {

namespace {

struct Row {
    NTSTATUS Status;
    int Errno;
};

constexpr Row Rows[] = {
    {STATUS_NO_SUCH_FILE, ENOENT},
    {STATUS_NO_MORE_FILES, ENOENT},
    {STATUS_OBJECT_NAME_NOT_FOUND, ENOENT},
    {STATUS_OBJECT_PATH_NOT_FOUND, ENOENT},
    {STATUS_DELETE_PENDING, ENOENT}, // gone for everybody but those who have it open
    {STATUS_FILE_INVALID, ESTALE},
    {STATUS_INVALID_HANDLE, EBADF},
    {STATUS_OBJECT_NAME_INVALID, EINVAL},
    {STATUS_OBJECT_PATH_INVALID, ELOOP},
    {STATUS_NAME_TOO_LONG, ENAMETOOLONG},
    {STATUS_OBJECT_NAME_COLLISION, EEXIST},
    {STATUS_DIRECTORY_NOT_EMPTY, ENOTEMPTY},
    {STATUS_FILE_IS_A_DIRECTORY, EISDIR},
    {STATUS_NOT_A_DIRECTORY, ENOTDIR},
    {STATUS_NOT_SAME_DEVICE, EXDEV},
    {STATUS_ACCESS_DENIED, EACCES},
    {STATUS_CANNOT_DELETE, EPERM},
    {STATUS_SHARING_VIOLATION, EBUSY},
    {STATUS_FILE_LOCK_CONFLICT, EACCES},
    {STATUS_LOCK_NOT_GRANTED, EAGAIN},
    {STATUS_RANGE_NOT_LOCKED, EINVAL},
    {STATUS_DISK_FULL, ENOSPC},
    {STATUS_QUOTA_EXCEEDED, EDQUOT},
    {STATUS_NO_QUOTAS_FOR_ACCOUNT, EDQUOT},
    {STATUS_TOO_MANY_OPENED_FILES, EMFILE},
    {STATUS_INSUFFICIENT_RESOURCES, ENOMEM},
    {STATUS_NO_MEMORY, ENOMEM},
    {STATUS_INVALID_PARAMETER, EINVAL},
    {STATUS_INVALID_DEVICE_REQUEST, EOPNOTSUPP},
    {STATUS_NOT_SUPPORTED, EOPNOTSUPP},
    {STATUS_NOT_IMPLEMENTED, EOPNOTSUPP},
    {STATUS_BAD_NETWORK_PATH, ENOENT},
    {STATUS_BAD_NETWORK_NAME, ENOENT},
    {STATUS_NO_LOGON_SERVERS, EHOSTUNREACH},
    {STATUS_CONNECTION_DISCONNECTED, EHOSTDOWN},
    {STATUS_NETWORK_BUSY, EBUSY},
    {STATUS_CANCELLED, EINTR},
    {STATUS_IO_TIMEOUT, ETIMEDOUT},
};

} // namespace

int ErrnoOf(NTSTATUS Status) noexcept {
    if (NT_SUCCESS(Status)) {
        return 0;
    }
    for (const Row &Each : Rows) {
        if (Each.Status == Status) {
            return Each.Errno;
        }
    }
    return EIO;
}

int ErrnoOfProvider(RVSTATUS Status) noexcept {
    if (!RvIsError(Status)) {
        return 0;
    }
    const int Error = ErrnoOf(NtFsdTranslateErrorCode(Status));
    return Error != 0 ? Error : EIO;
}

} // namespace app::mount
