#include "embedded/ob/ob.h"

#include "embedded/verifier/report.h"

namespace embedded {

void Object::Reference() noexcept {
    if (References_.fetch_add(1, std::memory_order_relaxed) <= 0) [[unlikely]] {
        BugCheck(bugcheck::Verifier, bugcheck::ReferenceFromZero, reinterpret_cast<ULONG_PTR>(this), 0, 0,
                 "an object that is being deleted was referenced");
    }
}

void Object::Dereference() noexcept {
    const LONG Left = References_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (Left == 0) {
        OnLastReference();
    } else if (Left < 0) [[unlikely]] {
        BugCheck(0x18, reinterpret_cast<ULONG_PTR>(this), static_cast<ULONG_PTR>(Left), 0, 0,
                 "an object was dereferenced once too often");
    }
}

} // namespace embedded
