// What a verb is: its name, what it takes, what it does. Help, manual, completion and the README's table are made of
// this description, and the command line is read by it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "app/session.h"

namespace app {

// Runs over a session; the exit code. StatusError, UsageError and Interrupted may leave it.
using Command = std::function<int(Session &)>;

struct Parameter {
    using Place =
        std::variant<bool *, std::string *, std::vector<std::string> *, uint32_t *, std::optional<uint32_t> *>;

    std::string Names; // "PATH", or "-l,--long"
    std::string Help;
    Place Goes;                          // lives as long as the verb's Run; what is there is the default
    bool Required = false;               // of those without dashes
    std::string Shown = {};              // what stands for the words: "SOURCE... TARGET", "BYTES"
    std::vector<std::string> OneOf = {}; // nothing else is taken
    bool Hidden = false;                 // not shown

    // Copies with one of these set.
    Parameter Needed() const {
        Parameter Copy = *this;
        Copy.Required = true;
        return Copy;
    }
    Parameter As(std::string Words) const {
        Parameter Copy = *this;
        Copy.Shown = std::move(Words);
        return Copy;
    }
    Parameter Of(std::vector<std::string> Words) const {
        Parameter Copy = *this;
        Copy.OneOf = std::move(Words);
        return Copy;
    }
    Parameter Unseen() const {
        Parameter Copy = *this;
        Copy.Hidden = true;
        return Copy;
    }

    bool IsOption() const {
        return Names.starts_with('-');
    }
    bool IsFlag() const {
        return std::holds_alternative<bool *>(Goes);
    }
};

struct Verb {
    std::string Name;
    std::string Group;   // of the manual's pages: files, listings, requests, ...
    std::string Summary; // one line, small first letter, no full stop
    std::vector<Parameter> Parameters;
    Command Run;
    std::string Text = {};                  // paragraphs for the manual and the help of the verb
    std::vector<std::string> Examples = {}; // whole command lines behind "rvfsd "
    // Puts words in order that the reader of options would take for something else.
    std::function<void(std::vector<std::string> &Words)> Prepare = {};
    // Done before the session is started, while there is one thread; not by the console, whose driver is running. The
    // exit code when that was all.
    std::function<std::optional<int>(SessionOptions &)> Before = {};
    std::function<int()> Alone = {}; // instead of Run: needs no driver, and none is started
    bool Hidden = false;
};

// Runs Action for one object: 0, or 1 after an error, which is told on standard error. UsageError and Interrupted pass.
int Guarded(const std::function<void()> &Action);

// The same for each of Paths; a mask in a last component stands for what matches. 1 when any failed.
int ForEachPath(const std::vector<std::string> &Paths, const std::function<void(const std::u16string &Path)> &Action);

} // namespace app
