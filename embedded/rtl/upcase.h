// The platform's up-case table under the embedded kernel's name.
#pragma once

#include "text/upcase.h"

namespace embedded {

using text::UpcaseTable;
using text::UpcaseUnit;

} // namespace embedded
