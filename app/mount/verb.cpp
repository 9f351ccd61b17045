// mount: the servers' files as ordinary paths.

#include <memory>
#include <optional>

#include <fmt/format.h>

#include "app/mount/serve.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

void AddMountVerb(VerbList &List) {
    struct Words {
        std::vector<std::string> Options;
        std::string Point;
        bool Foreground = false;
        bool Debug = false;
        mount::MountOptions Parsed;
        bool Ready = false;
    };
    const auto Given = std::make_shared<Words>();
    List.push_back(
        {.Name = "mount",
         .Group = "program",
         .Summary = "make the servers' files ordinary paths below a directory",
         .Parameters = {{"-o", "options of the mount, comma-separated", &Given->Options},
                        {"-f,--foreground", "do not go into the background", &Given->Foreground},
                        {"-d,--debug", "print the kernel's requests, in the foreground", &Given->Debug},
                        {"MOUNTPOINT", "an existing directory", &Given->Point}},
         .Run =
             [Given](Session &Running) {
                 if (!Given->Ready) {
                     throw UsageError("mount: not in the console, whose driver is in use; it is a command of its own");
                 }
                 return mount::Serve(Running, Given->Parsed);
             },
         .Text = "Every export is at MOUNTPOINT/server/volume, or one of them at MOUNTPOINT itself with -o "
                 "volume='\\\\server\\volume'. The mount is there when the command returns; fusermount3 -u MOUNTPOINT "
                 "or SIGTERM ends it.\n\nThe words behind -o:\n" +
                 mount::MountWordsHelp(),
         .Examples = {"--export '\\\\srv\\data=/srv/data' mount -o 'volume=\\\\srv\\data' /mnt"},
         .Before = [Given](SessionOptions &Session) -> std::optional<int> {
             Given->Parsed = mount::DefaultMountOptions();
             Given->Parsed.Point = Given->Point;
             Given->Parsed.Debug = Given->Debug;
             Given->Parsed.Foreground = Given->Foreground || Given->Debug;
             for (const std::string &Each : Given->Options) {
                 mount::ParseMountWords(Each, Given->Parsed);
             }
             if (Given->Parsed.Help) {
                 fmt::print("{}\n", mount::MountWordsHelp());
                 return 0;
             }
             if (Given->Point.empty()) {
                 throw UsageError("mount: MOUNTPOINT is required; help mount tells what it takes");
             }
             mount::Prepare(Given->Parsed, Session);
             Given->Ready = true;
             return std::nullopt;
         }});
}

} // namespace app
