#include "providers/directory/errno_status.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace providers::directory {
namespace {

struct Row {
    int Error;
    USHORT Code;
};

constexpr Row Rows[] = {
    {EPERM, RV_STATUS_ACCESS_DENIED},
    {ENOENT, CODE_NO_SUCH_FILE},
    {EINTR, 0x000C},
    {EIO, 0x0100},
    {ENXIO, 0x0507},
    {EBADF, 0x0003},
    {EAGAIN, 0x0102},
    {ENOMEM, 0x0005},
    {EACCES, RV_STATUS_ACCESS_DENIED},
    {EFAULT, 0x0004},
    {EBUSY, 0x050E},
    {EEXIST, CODE_EXISTS},
    {EXDEV, CODE_NOT_SAME_VOLUME},
    {ENODEV, 0x0507},
    {ENOTDIR, RVFS_NOT_A_DIRECTORY},
    {EISDIR, CODE_IS_A_DIRECTORY},
    {EINVAL, 0x0004},
    {ENFILE, 0x0504},
    {EMFILE, 0x0504},
    {ETXTBSY, 0x050E},
    {EFBIG, 0x050C},
    {ENOSPC, 0x0509},
    {EROFS, RV_STATUS_ACCESS_DENIED},
    {ERANGE, 0x0004},
    {EDEADLK, CODE_LOCK_NOT_GRANTED},
    {ENAMETOOLONG, CODE_NAME_INVALID},
    {ENOLCK, CODE_LOCK_NOT_GRANTED},
    {ENOSYS, CODE_NOT_SUPPORTED},
    {ENOTEMPTY, 0x0513},
    {ELOOP, 0x0514},
    {EOVERFLOW, 0x0004},
    {EILSEQ, CODE_NAME_INVALID},
    {EOPNOTSUPP, CODE_NOT_SUPPORTED},
    {ENETDOWN, 0x0101},
    {ENETUNREACH, 0x0101},
    {ECONNABORTED, 0x0101},
    {ECONNRESET, 0x0101},
    {ENOBUFS, 0x0005},
    {ENOTCONN, 0x0101},
    {ESHUTDOWN, 0x0101},
    {ETIMEDOUT, 0x0100},
    {ECONNREFUSED, 0x0101},
    {EHOSTDOWN, 0x0101},
    {EHOSTUNREACH, 0x0101},
    {ESTALE, 0x0507},
    {EUCLEAN, 0x0508},
    {EREMOTEIO, 0x0100},
    {EDQUOT, CODE_QUOTA_EXCEEDED},
    {ECANCELED, 0x000C},
    {EKEYREJECTED, RV_STATUS_ACCESS_DENIED},
};
static_assert(std::is_sorted(std::begin(Rows), std::end(Rows),
                             [](const Row &Left, const Row &Right) { return Left.Error < Right.Error; }));

} // namespace

RVSTATUS StatusFromErrno(int Error) {
    if (Error == 0) {
        return RVSTATUS::Success;
    }
    const Row *Found = std::lower_bound(std::begin(Rows), std::end(Rows), Error,
                                        [](const Row &Left, int Right) { return Left.Error < Right; });
    return Found != std::end(Rows) && Found->Error == Error ? Failure(Found->Code) : RVSTATUS::Unsuccessful;
}

RVSTATUS StatusFromLookup(int Error) {
    return Error == EXDEV || Error == ELOOP ? RVSTATUS::AccessDenied : StatusFromErrno(Error);
}

} // namespace providers::directory
