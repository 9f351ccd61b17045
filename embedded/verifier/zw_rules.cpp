#include "embedded/verifier/zw_rules.h"

namespace embedded {

void CheckZwString(PCUNICODE_STRING String) noexcept {
    if (Verifying() && String != nullptr && ((String->Length & 1) || String->Length > String->MaximumLength)) {
        BugCheck(bugcheck::Verifier, bugcheck::MalformedString, reinterpret_cast<ULONG_PTR>(String), String->Length,
                 String->MaximumLength, "a Zw routine was given a string of odd length, or longer than its buffer");
    }
}

} // namespace embedded
