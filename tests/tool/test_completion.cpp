// Tab in the shell: what is offered for the word being typed, drawn from the
// command tables and from the machine (handles, directory listings).
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "completion.h"
#include "interpreter.h"

using namespace tervane::tool;
namespace fs = std::filesystem;

namespace {

TEST(Completion, OffersWhatTheLineCanTakeNext) {
    char pattern[] = "/tmp/tervane-completion-XXXXXX";
    fs::path dir = mkdtemp(pattern);
    std::ostringstream out;
    Interpreter interpreter(out, dir);
    for (const char* line : {"volume C: vol", "process 10 app.exe", "10: mkdir C:\\dir", "10: mkdir \"C:\\My Dir\"",
                             "10: put C:\\a.txt x", "10: put C:\\dir\\b.txt x", "10: open h1 C:\\dir"})
        interpreter.Execute(line, 1);

    struct Case {
        const char* line;
        std::vector<std::string> offered;  // exactly these, in order
    };
    const Case cases[] = {
        {"vol", {"volume"}},
        {"1", {"10:"}},
        {"10: op", {"open"}},
        {"10: close ", {"h1"}},
        {"10: open h2 C:\\", {"\"C:\\My Dir\\", "C:\\a.txt", "C:\\dir\\"}},
        {"10: open h2 c:\\D", {"c:\\dir\\"}},  // names compare without regard to case
        {"10: open h2 \"C:\\My", {"\"C:\\My Dir\\"}},
        {"10: cat C:\\dir\\", {"C:\\dir\\b.txt"}},
        {"10: cat C:\\nothing\\", {}},
        {"10: open h2 C:\\a.txt acc", {"access="}},
        {"10: open h2 C:\\a.txt access=GENERIC_READ|SYN", {"access=GENERIC_READ|SYNCHRONIZE"}},
        {"10: open h2 C:\\a.txt disposition=FILE_OPEN", {"disposition=FILE_OPEN", "disposition=FILE_OPEN_IF"}},
        {"10: open h2 C:\\a.txt related=", {"related=h1"}},
        {"10: open h2 C:\\a.txt access=GENERIC_READ acc", {}},  // given once
        {"10: lock h1 0 1 ex", {"exclusive"}},
        {"10: query h1 FileBas", {"FileBasicInformation"}},
        {"10: volinfo h1 FileFsAtt", {"FileFsAttributeInformation"}},
        {"10: getsec h1 OWNER_SECURITY_INFORMATION|DACL", {"OWNER_SECURITY_INFORMATION|DACL_SECURITY_INFORMATION"}},
        {"ctl load", {"load-index"}},
        {"ctl set-filters C:\\d", {"C:\\dir\\"}},  // as the controller sees the volume
        {"handles ", {"10"}},
        {"help ope", {"open"}},
        {"expect n", {"not"}},
        {"10: write h1 \"two words", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        Completion completion = CompleteLine(interpreter.session(), c.line);
        EXPECT_EQ(completion.candidates, c.offered);
        std::string line = c.line;
        EXPECT_LE(completion.start, line.size());
    }
    EXPECT_EQ(CompleteLine(interpreter.session(), "10: open h2 \"C:\\My").start, 12u);  // at the quote
    interpreter.Finish();
    fs::remove_all(dir);
}

}  // namespace
