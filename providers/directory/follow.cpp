#include "providers/directory/follow.h"

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace providers::directory {
namespace {

constexpr int MaxLinks = 40;

// What of an absolute target lies below the export; false when nothing does.
bool BelowExport(std::string_view Target, std::string_view Absolute, std::string &Rest) {
    if (!Target.starts_with(Absolute) || (Target.size() > Absolute.size() && Target[Absolute.size()] != '/')) {
        return false;
    }
    Rest = Target.substr(Absolute.size());
    return true;
}

int Refuse(int Error) {
    errno = Error;
    return -1;
}

} // namespace

int OpenFollowing(int Root, std::string_view Absolute, std::string_view Path, int Flags) {
    std::vector<UniqueFd> Above; // the directories from below the root to where we are
    std::string Rest(Path);
    int Links = 0;
    const bool FollowLast = (Flags & O_NOFOLLOW) == 0;
    for (;;) {
        Rest.erase(0, Rest.find_first_not_of('/'));
        const int At = Above.empty() ? Root : Above.back().Get();
        if (Rest.empty() || Rest == ".") {
            return openat(At, ".", Flags | O_CLOEXEC);
        }
        const size_t Slash = Rest.find('/');
        const std::string Component = Rest.substr(0, Slash);
        Rest.erase(0, Slash == std::string::npos ? Rest.size() : Slash);
        const bool Last = Rest.find_first_not_of('/') == std::string::npos;
        if (Component == ".") {
            continue;
        }
        if (Component == "..") {
            if (Above.empty()) {
                return Refuse(EXDEV);
            }
            Above.pop_back();
            continue;
        }
        UniqueFd Next(openat(At, Component.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat Stat;
        if (!Next || fstat(Next.Get(), &Stat) != 0) {
            return -1;
        }
        if (S_ISLNK(Stat.st_mode) && (!Last || FollowLast)) {
            char Text[PATH_MAX];
            const ssize_t Size = readlinkat(Next.Get(), "", Text, sizeof Text);
            if (Size < 0 || Size == sizeof Text || ++Links > MaxLinks) {
                return Size < 0 ? -1 : Refuse(ELOOP);
            }
            std::string Target(Text, static_cast<size_t>(Size));
            if (Target.starts_with('/')) {
                if (std::string Below; BelowExport(Target, Absolute, Below)) {
                    Target = Below;
                    Above.clear();
                } else {
                    return Refuse(EXDEV);
                }
            }
            Rest = Target + Rest;
        } else if (Last) {
            return openat(At, Component.c_str(), Flags | O_NOFOLLOW | O_CLOEXEC);
        } else if (!S_ISDIR(Stat.st_mode)) {
            return Refuse(ENOTDIR);
        } else {
            Above.push_back(std::move(Next));
        }
    }
}

} // namespace providers::directory
