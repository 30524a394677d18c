// The demo's workspace content and its walk: a small text editor, Inkpad,
// installed in the base layer, updated in the middle layer, and changed by
// its own process through the driver's layered view.
#include <cerrno>
#include <fstream>

#include "demo.h"
#include "hostpath.h"

namespace tervane::tool {
namespace {

// Bytes that look like a program file: a header, a label, then a pattern.
std::string BinaryLike(const std::string& label, size_t size) {
    std::string data = "MZ";
    data += label;
    data += '\0';
    for (size_t i = data.size(); i < size; ++i) data += static_cast<char>((i * 37 + 11) & 0xff);
    data.resize(size);
    return data;
}

// Empty on success, else why not.
std::string Write(const std::filesystem::path& file, const std::string& data) {
    std::string problem = MakeHostDirectory(file.parent_path());
    if (!problem.empty()) return problem;
    std::ofstream out(file, std::ios::binary);
    out << data;
    if (!out.flush()) return "cannot write " + file.string() + ": " + HostReason(errno);
    return {};
}

const char* const kIni = "[window]\r\nwidth=800\r\nheight=600\r\n";
const char* const kIniAppended = "[recent]\r\nfile1=notes.txt\r\n";
const char* const kReadme10 = "Inkpad 1.0: a small text editor.\r\n";
const char* const kReadme11 = "Inkpad 1.1: a small text editor, now with autosave.\r\n";

DemoCommand Cmd(std::string line, std::vector<std::string> expects) { return {std::move(line), std::move(expects)}; }

}  // namespace

std::string WriteDemoContent(const std::filesystem::path& workspace) {
    const auto layers = workspace / "volume" / "layers";
    const auto base = layers / "base" / "Inkpad";
    const auto middle = layers / "middle" / "Inkpad";
    const std::pair<std::filesystem::path, std::string> files[] = {
        {base / "inkpad.exe", BinaryLike("inkpad 1.0", 2048)},
        {base / "inkpad.ini", kIni},
        {base / "readme.txt", kReadme10},
        {base / "plugins" / "spell.dll", BinaryLike("spell 1.0", 512)},
        {base / "plugins" / "wordcount.dll", BinaryLike("wordcount 1.0", 384)},
        {base / "themes" / "light.theme", "background=#ffffff\r\ntext=#202020\r\n"},
        {base / "themes" / "dark.theme", "background=#1e1e1e\r\ntext=#d0d0d0\r\n"},
        {base / "dictionaries" / "en" / "words.dic", "apple\r\nbanana\r\ncherry\r\n"},
        {base / "dictionaries" / "de" / "words.dic", "Apfel\r\nBanane\r\nKirsche\r\n"},
        {middle / "readme.txt", kReadme11},
        {middle / "plugins" / "spell.dll", BinaryLike("spell 1.1", 640)},
        {middle / "plugins" / "autosave.dll", BinaryLike("autosave 1.1", 448)},
    };
    for (const auto& [file, data] : files)
        if (std::string problem = Write(file, data); !problem.empty()) return problem;
    for (const auto& dir : {layers / "pack", workspace / "volume" / "index", workspace / "volume" / "Temp"})
        if (std::string problem = MakeHostDirectory(dir); !problem.empty()) return problem;
    return {};
}

std::vector<DemoStep> DemoSteps() {
    std::vector<DemoStep> steps;

    steps.push_back({
        "The machine and the driver",
        "Drive C: is the host directory volume/ of the workspace. Below C:\\layers lie three filter directories: "
        "the pack location (empty; everything the program changes lands there), a middle layer holding an "
        "update of the program, and the base layer holding the program as installed. Two processes run: "
        "inkpad.exe, which the driver will monitor, and backup.exe, which it will not. The driver loads, and a "
        "controller configures it through its control device: the monitored process, the filter directories, "
        "an excluded folder, the base layer's index; then filtering starts.",
        {
            Cmd("volume C: volume", {"expect STATUS_SUCCESS"}),
            Cmd("process 1234 inkpad.exe", {"expect STATUS_SUCCESS"}),
            Cmd("process 77 backup.exe", {"expect STATUS_SUCCESS"}),
            Cmd("load", {"expect STATUS_SUCCESS"}),
            Cmd("ctl add-process 1234 inkpad.exe", {"expect STATUS_SUCCESS"}),
            Cmd("ctl set-filters C:\\layers\\pack C:\\layers\\middle C:\\layers\\base", {"expect STATUS_SUCCESS"}),
            Cmd("ctl add-exclusions C:\\Temp", {"expect STATUS_SUCCESS"}),
            Cmd("ctl load-index C:\\index\\base.node C:\\index\\base.name", {"expect STATUS_SUCCESS"}),
            Cmd("ctl start", {"expect \"filtering=1\""}),
        },
        {},
        {},
        "the driver loaded, took every setting, and filters now.",
    });

    steps.push_back({
        "A layered open",
        "inkpad.exe opens its files by their usual names, C:\\Inkpad\\... No such folder exists on the volume: "
        "the driver serves each open from the lowest filter directory that holds the file. readme.txt is in "
        "the middle and in the base layer; the middle one, the update, wins. backup.exe sees the volume as it "
        "is. (While filtering is on, a process that is not monitored is told that a name was not found where "
        "the file system would say that its folder was not found.)",
        {
            Cmd("1234: cat C:\\Inkpad\\inkpad.ini", {"expect STATUS_SUCCESS", "expect \"width=800\""}),
            Cmd("1234: cat C:\\Inkpad\\readme.txt", {"expect \"Inkpad 1.1\""}),
        },
        {
            Cmd("77: cat C:\\Inkpad\\inkpad.ini", {"expect STATUS_OBJECT_NAME_NOT_FOUND"}),
            Cmd("77: cat C:\\layers\\base\\Inkpad\\readme.txt", {"expect \"Inkpad 1.0\""}),
        },
        {},
        "the monitored process reads the layers, the other one the bare volume.",
    });

    steps.push_back({
        "Copy-up on write",
        "inkpad.exe appends to inkpad.ini. The file lies in the base layer, which is never written, so before "
        "the first write the driver copies it into the pack location and writes the copy. The base layer keeps "
        "the old bytes.",
        {
            Cmd("1234: open ini C:\\Inkpad\\inkpad.ini access=GENERIC_READ|GENERIC_WRITE|SYNCHRONIZE",
                {"expect STATUS_SUCCESS"}),
            Cmd("1234: write ini \"[recent]\\r\\nfile1=notes.txt\\r\\n\" offset=-1",
                {"expect STATUS_SUCCESS", "expect log \"Copy to pack location succeeded!! [C:\\\\Inkpad\\\\inkpad.ini]\""}),
            Cmd("1234: close ini", {"expect STATUS_SUCCESS"}),
            Cmd("1234: cat C:\\Inkpad\\inkpad.ini", {"expect \"width=800\"", "expect \"[recent]\""}),
        },
        {
            Cmd("77: cat C:\\layers\\pack\\Inkpad\\inkpad.ini", {"expect \"[recent]\""}),
            Cmd("77: cat C:\\layers\\base\\Inkpad\\inkpad.ini", {"expect \"width=800\"", "expect not \"[recent]\""}),
        },
        {
            {"volume/layers/pack/Inkpad/inkpad.ini", std::string(kIni) + kIniAppended},
            {"volume/layers/base/Inkpad/inkpad.ini", std::string(kIni)},
        },
        "the new bytes landed in the pack location; the base copy is unchanged.",
    });

    steps.push_back({
        "A deletion, hidden from the view",
        "inkpad.exe deletes the wordcount plugin. The base layer cannot change, so the driver hides the name "
        "instead: the monitored view no longer has the file, while its copy stays on disk.",
        {
            Cmd("1234: rm C:\\Inkpad\\plugins\\wordcount.dll", {"expect STATUS_SUCCESS"}),
            Cmd("1234: stat C:\\Inkpad\\plugins\\wordcount.dll", {"expect STATUS_OBJECT_NAME_NOT_FOUND"}),
        },
        {
            Cmd("77: ls C:\\layers\\base\\Inkpad\\plugins", {"expect \"wordcount.dll 384\""}),
        },
        {
            {"volume/layers/base/Inkpad/plugins/wordcount.dll", BinaryLike("wordcount 1.0", 384)},
            {"volume/layers/pack/Inkpad/plugins/wordcount.dll", std::nullopt},
        },
        "the name is gone from the view; the lower copy is still on disk.",
    });

    steps.push_back({
        "A rename",
        "inkpad.exe renames readme.txt to whatsnew.txt. Renames happen in the pack location: the driver copies "
        "the file up (from the middle layer, which serves it), renames the copy, and hides the old name, so that "
        "neither the middle nor the base layer's readme.txt shows through.",
        {
            Cmd("1234: mv C:\\Inkpad\\readme.txt C:\\Inkpad\\whatsnew.txt", {"expect STATUS_SUCCESS"}),
            Cmd("1234: cat C:\\Inkpad\\whatsnew.txt", {"expect \"Inkpad 1.1\""}),
            Cmd("1234: stat C:\\Inkpad\\readme.txt", {"expect STATUS_OBJECT_NAME_NOT_FOUND"}),
        },
        {
            Cmd("77: ls C:\\layers\\pack\\Inkpad", {"expect \"whatsnew.txt\"", "expect not \"readme.txt\""}),
            Cmd("77: cat C:\\layers\\middle\\Inkpad\\readme.txt", {"expect \"Inkpad 1.1\""}),
        },
        {
            {"volume/layers/pack/Inkpad/whatsnew.txt", std::string(kReadme11)},
            {"volume/layers/pack/Inkpad/readme.txt", std::nullopt},
            {"volume/layers/middle/Inkpad/readme.txt", std::string(kReadme11)},
            {"volume/layers/base/Inkpad/readme.txt", std::string(kReadme10)},
        },
        "the new name lives in the pack location; the old one is hidden, both lower copies untouched.",
    });

    steps.push_back({
        "A merged listing",
        "Listing C:\\Inkpad\\plugins gives that folder of every filter directory, one after the other from the "
        "lowest: the pack location's copy (empty: the delete made it), the middle layer's autosave.dll and "
        "spell.dll (640 bytes), then the base layer's spell.dll, without wordcount.dll, which was deleted. "
        "Duplicates are not removed: spell.dll comes once from each layer that holds it, first the copy an "
        "open reaches; '.' and '..' come once per layer.",
        {
            Cmd("1234: ls C:\\Inkpad\\plugins",
                {"expect \"autosave.dll 448\\n  spell.dll 640\"", "expect \"spell.dll 512\"",
                 "expect not \"wordcount.dll\""}),
        },
        {
            Cmd("77: ls C:\\layers\\middle\\Inkpad\\plugins", {"expect \"spell.dll 640\"", "expect \"autosave.dll\""}),
            Cmd("77: ls C:\\layers\\base\\Inkpad\\plugins", {"expect \"spell.dll 512\"", "expect \"wordcount.dll\""}),
        },
        {},
        "one folder, merged from three, without the hidden name.",
    });

    steps.push_back({
        "An exclusion",
        "C:\\Temp is excluded, so inkpad.exe's files there are the volume's own: its log goes straight to the "
        "volume, where backup.exe sees it too. A new document elsewhere lands in the pack location.",
        {
            Cmd("1234: put C:\\Temp\\inkpad.log \"started\\r\\n\"", {"expect STATUS_SUCCESS"}),
            Cmd("1234: put C:\\Inkpad\\notes.txt \"buy milk\\r\\n\"", {"expect STATUS_SUCCESS"}),
        },
        {
            Cmd("77: cat C:\\Temp\\inkpad.log", {"expect \"started\""}),
            Cmd("77: cat C:\\Inkpad\\notes.txt", {"expect STATUS_OBJECT_NAME_NOT_FOUND"}),
            Cmd("77: cat C:\\layers\\pack\\Inkpad\\notes.txt", {"expect \"buy milk\""}),
        },
        {
            {"volume/Temp/inkpad.log", std::string("started\r\n")},
            {"volume/layers/pack/Temp/inkpad.log", std::nullopt},
            {"volume/layers/pack/Inkpad/notes.txt", std::string("buy milk\r\n")},
        },
        "the excluded folder is the volume's; everything else goes to the layers.",
    });

    steps.push_back({
        "The whole picture",
        "The tree of C:\\Inkpad as inkpad.exe sees it, each name once. Each entry is marked with the filter "
        "directory whose file serves inkpad.exe's open of it: [0] the pack location, [1] the middle layer, [2] "
        "the base layer; \"also in\" names the layers that hold another copy on disk.",
        {
            Cmd("1234: tree C:\\Inkpad",
                {"expect STATUS_SUCCESS", "expect \"inkpad.ini 60 [0] also in 2\"",
                 "expect \"whatsnew.txt 53 [0]\"", "expect \"spell.dll 640 [1] also in 2\"",
                 "expect \"autosave.dll 448 [1]\"", "expect \"inkpad.exe 2048 [2]\"", "expect \"notes.txt 10 [0]\"",
                 "expect \"plugins <DIR> [0] also in 1 2\"", "expect \"words.dic 23 [2]\"",
                 "expect not \"wordcount.dll\"", "expect not \"readme.txt\""}),
        },
        {},
        {},
        "every entry comes from the layer expected of it.",
    });

    steps.push_back({
        "The kernel debug log",
        "The driver reports its work on the kernel debug output. These are its lines about copy-ups in this "
        "walk: the write to inkpad.ini, and the delete and the rename, which also work on a copy in the pack "
        "location.",
        {
            Cmd("log \"Copy to pack location succeeded!!\"",
                {"expect \"Copy to pack location succeeded!! [C:\\\\Inkpad\\\\inkpad.ini]\"",
                 "expect \"Copy to pack location succeeded!! [C:\\\\Inkpad\\\\plugins\\\\wordcount.dll]\"",
                 "expect \"Copy to pack location succeeded!! [C:\\\\Inkpad\\\\readme.txt]\""}),
        },
        {},
        {},
        "the three copy-ups are on record.",
    });

    steps.push_back({
        "Pool by tag",
        "Pool use by tag, the driver's tags (Trv*) among the machine's own. The two areas of the loaded "
        "index (Trvi) stay while the driver runs; its general blocks (Trvm) hold the lists it was given. No "
        "process holds a file handle it did not close.",
        {
            Cmd("pool", {"expect \"Trvi allocs=2 frees=0 blocks=2\"", "expect \"Trvm allocs=\""}),
            Cmd("handles 1234", {"expect not \"File\""}),
        },
        {},
        {},
        "the index stays loaded, no file handle is left open.",
    });
    return steps;
}

}  // namespace tervane::tool
