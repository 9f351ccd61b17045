#include "embedded/verifier/user_memory.h"

#include <cstdlib>
#include <map>
#include <mutex>

#include <fmt/format.h>

namespace embedded {
namespace {

struct UserRanges {
    std::mutex Mutex;
    std::map<ULONG_PTR, SIZE_T> Ranges;
};

UserRanges &Users() {
    static UserRanges &Instance = *new UserRanges;
    return Instance;
}

} // namespace

UserMemory::UserMemory(SIZE_T Bytes) : Address_(std::malloc(Bytes)), Bytes_(Bytes) {
    std::lock_guard Guard(Users().Mutex);
    Users().Ranges[reinterpret_cast<ULONG_PTR>(Address_)] = Bytes_;
    ++UserMemories;
}

UserMemory::~UserMemory() {
    {
        std::lock_guard Guard(Users().Mutex);
        Users().Ranges.erase(reinterpret_cast<ULONG_PTR>(Address_));
        --UserMemories;
    }
    std::free(Address_);
}

bool NTAPI IsUserMemory(const void *Address) noexcept {
    const auto Value = reinterpret_cast<ULONG_PTR>(Address);
    std::lock_guard Guard(Users().Mutex);
    auto Next = Users().Ranges.upper_bound(Value);
    return Next != Users().Ranges.begin() && Value < std::prev(Next)->first + std::prev(Next)->second;
}

void NTAPI ReportUserAddress(ULONG_PTR Rule, const void *Address, std::string_view Routine) noexcept {
    BugCheck(bugcheck::Verifier, Rule, reinterpret_cast<ULONG_PTR>(Address), 0, 0,
             fmt::format("{}: {} is an address of a process", Routine, Address));
}

} // namespace embedded
