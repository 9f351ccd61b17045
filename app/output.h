// How facts are printed: for people, or as one JSON object a line; colours and large numbers for people.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace app {

// TRUE while a command was given --json.
bool WantsJson();
void SetJson(bool Wanted);

// One fact of a record. Names are stable: scripts read them.
struct Field {
    std::string_view Name;
    std::variant<std::string, int64_t, uint64_t, bool, std::vector<std::string>> Value;
};
// Prints one object on a line of standard output.
void PrintRecord(const std::vector<Field> &Fields);

// A moment for a record: "2026-11-24T14:46:34.1234567Z", or "" for none.
std::string JsonTime(int64_t Time);

// Text in a colour when standard output is a terminal and NO_COLOR is not set.
enum class Colour { Directory, Faint, Bold };
std::string Coloured(Colour Which, std::string_view Text);

// "512", "1.5K", "12M": bytes for people.
std::string HumanSize(uint64_t Bytes);
// The same, or all digits.
std::string ShowBytes(uint64_t Bytes, bool Human);

} // namespace app
