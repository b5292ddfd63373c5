// Plays scenarios with the real program, each in a process of its own.
#include "tests/scenario/temp_folder.h"

#ifdef VVLAN_REDIS
#    include "tests/support/redis_server.h"
#endif

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>
#include <vector>

namespace vvl
{
namespace
{

namespace fs = std::filesystem;

struct Outcome {
    int status = -1;
    std::string out;    // standard output
    std::string errors; // standard error
    std::string frames; // the capture of what left
};

std::string last_line(const std::string &text)
{
    const size_t end = text.find_last_not_of('\n');
    const size_t begin = text.rfind('\n', end);
    return text.substr(begin + 1, end - begin);
}

class Player
{
  public:
    Outcome play(const std::string &scenario, const std::string &options = "") const
    {
        const std::string command = std::string(VVLAND_COMMAND) + " sim '" + scenario + "' " + options + " --out '" +
                                    folder.path("out.pcap") + "' >'" + folder.path("out") + "' 2>'" +
                                    folder.path("errors") + "'";
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, TempFolder::read(folder.path("out")),
                TempFolder::read(folder.path("errors")), TempFolder::read(folder.path("out.pcap"))};
    }

    Outcome play_text(const std::string &text) const { return play(folder.write("s.vv", text)); }

    TempFolder folder;
};

std::vector<std::string> example_files()
{
    std::vector<std::string> files;
    for (const auto &entry : fs::recursive_directory_iterator(EXAMPLES)) {
        if (entry.path().extension() == ".vv") {
            files.push_back(entry.path().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

class Example : public testing::TestWithParam<std::string>
{
  protected:
    void SetUp() override
    {
        if (!fs::exists("/usr/share/sip-tester/g711a.pcap")) {
            GTEST_SKIP() << "needs the captures of the package sip-tester";
        }
    }

    const Player player;
};

TEST_P(Example, RunsAsItSaysAndTheSameTwice)
{
    const Outcome first = player.play(GetParam());
    EXPECT_EQ(first.status, 0) << first.errors;
    // The module logs errors only where its store refuses a request.
    const bool is_refused = TempFolder::read(GetParam()).find("\nstore refuse ") != std::string::npos;
    EXPECT_EQ(first.errors.empty(), !is_refused) << first.errors;
    EXPECT_TRUE(last_line(first.out).starts_with("frames: ")) << last_line(first.out);
    EXPECT_FALSE(first.frames.empty());
    const Outcome second = player.play(GetParam());
    EXPECT_EQ(first.out, second.out);
    EXPECT_EQ(first.frames, second.frames);
}

#ifdef VVLAN_REDIS
// What happens at one time may come in another order from a server.
std::multiset<std::string> lines_of(const std::string &text)
{
    std::multiset<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.insert(line);
    }
    return lines;
}

TEST_P(Example, GivesTheSameTablesAndFramesOnRedis)
{
    test::RedisServer server;
    const Outcome here = player.play(GetParam());
    const Outcome there = player.play(GetParam(), "--store " + server.address() + " --prefix sw1:");
    EXPECT_EQ(there.status, 0) << there.errors;
    EXPECT_EQ(lines_of(there.out), lines_of(here.out));
    EXPECT_EQ(there.frames, here.frames);
}
#endif

INSTANTIATE_TEST_SUITE_P(All, Example, testing::ValuesIn(example_files()), [](const auto &example) {
    std::string name = fs::path(example.param).stem().string();
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

TEST(PlayTest, ErrorsNameTheLineAndTheReason)
{
    const std::string good = "vlan 100 on\noui add 00:04:76:00:00:00/24\nport 1 auto\n";
    const struct {
        const char *line; // the fourth
        int status;
        const char *error;
    } rows[] = {
        // A bad scenario ends before anything runs.
        {"port 1 atuo", 2, "'atuo' after 'port 1': expected auto, manual, disable or delete; did you mean 'auto'?"},
        // Expectations that fail say what was found.
        {"expect port 1 joined", 1, "expected port 1 joined, found waiting"},
        {"expect port 2 waiting", 1, "expected port 2 waiting, found out"},
        {"expect bound 1 none", 1, "expected bound 1 none, found security"},
        {"expect bound 2 voice", 1, "expected bound 2 voice, found none"},
        {"expect ouis 0", 1, "expected ouis 0, found 1"},
        {"expect macs 1", 1, "expected macs 1, found 0"},
        {"expect error-event oui", 1, "expected error-event oui, found none"},
        {"expect frames in >= 1", 1, "expected frames in >= 1, found 0"},
        {"expect no object u_bridge.mac_vid_reg 100", 1, "expected no object u_bridge.mac_vid_reg 100, found one"},
        {"expect object p_bridge.vvlan_oui_cfg 00:04:77:00:00:00/24", 1,
         "expected object p_bridge.vvlan_oui_cfg 00:04:77:00:00:00/24, found none"},
        {"start", 1, "the module is already loaded"},
        {"debug no_such", 1, "no_such"},
    };
    for (const auto &row : rows) {
        const Player player;
        const Outcome outcome = player.play_text(good + row.line + "\n");
        const std::string error = last_line(outcome.errors);
        EXPECT_EQ(outcome.status, row.status) << row.line;
        EXPECT_NE(error.find(player.folder.path("s.vv") + ":4: "), std::string::npos) << error;
        EXPECT_NE(error.find(row.error), std::string::npos) << error;
        EXPECT_EQ(fs::exists(player.folder.path("out.pcap")), row.status == 1) << row.line;
    }
    const Player player;
    const Outcome missing = player.play(player.folder.path("none.vv"));
    EXPECT_EQ(missing.status, 2);
    EXPECT_TRUE(last_line(missing.errors).ends_with("none.vv: No such file or directory")) << missing.errors;
}

TEST(PlayTest, WaitingPortThatIsTakenOutOfTheVoiceVlanIsNotTrapped)
{
    const Player player;
    player.folder.write("pc.pcap", TempFolder::read(std::string(EXAMPLES) + "/security/pc.pcap"));
    for (const char *taken_out : {"port 1 disable", "port 1 delete"}) {
        const Outcome outcome =
            player.play_text(std::string("vlan 100 on\noui add 00:1b:21:00:00:00/24\nport 1 auto\n") + taken_out +
                             "\nplay pc.pcap port 1\nexpect frames in = 10\nexpect frames trapped = 0\n");
        EXPECT_EQ(outcome.status, 0) << taken_out << ": " << outcome.errors;
    }
}

TEST(PlayTest, LinkLossAndCapturesThatOverlap)
{
    const Player player;
    player.folder.write("pc.pcap", TempFolder::read(std::string(EXAMPLES) + "/security/pc.pcap"));
    const Outcome outcome = player.play_text("vlan 100 on\n"
                                             "port 1 manual\n" // the PC tags: its port is in the VLAN
                                             "port 2 manual\n"
                                             "play pc.pcap port 1 background\n"
                                             "play pc.pcap port 2 from 500ms\n"
                                             "expect frames in = 10\n" // five of port 1, five of port 2
                                             "expect macs 1\n"
                                             "link 2 down\n"
                                             "expect macs 0\n");
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_TRUE(last_line(outcome.out).starts_with("frames: 15 in, 15 out, ")) << outcome.out;
}

TEST(PlayTest, OutputThatCannotBeWrittenFails)
{
    const Player player;
    const std::string scenario = player.folder.write("s.vv", "vlan 100 on\nwait 1s\nplay pc.pcap port 1\n");
    const std::string capture = TempFolder::read(std::string(EXAMPLES) + "/security/pc.pcap");
    player.folder.write("pc.pcap", capture);
    const std::string pc = "'" + player.folder.path("pc.pcap") + "'";
    const std::string command = std::string(VVLAND_COMMAND) + " ";
    const struct {
        std::string arguments;
        const char *error;
    } rows[] = {{"sim '" + scenario + "' >/dev/full", "vvland: standard output: not everything could be written"},
                {"--help >/dev/full", "vvland: standard output: No space left on device"},
                {"--help >&-", "vvland: standard output: Bad file descriptor"},
                {"sim '" + scenario + "' --out " + pc + " >/dev/null", "line 3 plays it; it is not overwritten"},
                {"sim '" + scenario + "' --out '" + scenario + "' >/dev/null", "exists and is not a capture"}};
    for (const auto &row : rows) {
        const std::string errors = player.folder.path("errors");
        const int status = std::system((command + row.arguments + " 2>'" + errors + "'").c_str());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << row.arguments;
        EXPECT_NE(TempFolder::read(errors).find(row.error), std::string::npos) << TempFolder::read(errors);
    }
    EXPECT_EQ(TempFolder::read(player.folder.path("pc.pcap")), capture);
}

// Captures of real networks, which are not ours to give away. Each scenario
// says what its capture must do; the capture's own name stands for %.
struct RealCapture {
    const char *file;
    const char *scenario;
};
constexpr RealCapture real_captures[] = {
    // Two telephones and a call server, all untagged.
    {"two-phones.pcap", "vlan 100 on\noui add 00:1e:7a:00:00:00/24\noui add 00:1d:45:00:00:00/24\nport 1 auto\n"
                        "play % port 1\nexpect port 1 joined\nexpect frames in = 200\nexpect frames trapped = 1\n"
                        "expect frames tagged = 164\nexpect frames dropped = 0\nexpect macs 2\n"},
    // Voice in VLAN 107 whose addresses no OUI matches: closed by security mode.
    {"tagged-voice.pcapng", "vlan 107 on\nsecurity on\noui add 00:04:13:00:00:00/24\nport 1 auto\nplay % port 1\n"
                            "expect port 1 waiting\nexpect frames trapped = 0\nexpect frames tagged = 0\n"
                            "expect frames dropped >= 1\nexpect macs 0\n"},
    // One telephone that marks its own media; its far end does not match.
    {"media-dscp40.pcap", "vlan 100 on\noui add 00:04:13:00:00:00/24\nport 1 auto\nplay % port 1\n"
                          "expect port 1 joined\nexpect frames in = 22\nexpect frames trapped = 1\n"
                          "expect frames tagged >= 1\nexpect macs 1\n"},
    // Single and double tags outside the voice VLAN pass as they are.
    {"vlan-pcp-dei.pcapng", "vlan 100 on\nsecurity on\noui add 00:04:13:00:00:00/24\nport 1 auto\nplay % port 1\n"
                            "expect frames in = 9\nexpect frames remarked = 0\nexpect frames dropped = 0\n"},
};

TEST(PlayTest, CapturesOfRealNetworks)
{
    const char *folder = std::getenv("VVLAN_CAPTURES");
    if (folder == nullptr) {
        GTEST_SKIP() << "VVLAN_CAPTURES names no folder with captures";
    }
    const Player player;
    for (const RealCapture &row : real_captures) {
        std::string text = row.scenario;
        text.replace(text.find('%'), 1, "\"" + std::string(folder) + "/" + row.file + "\"");
        const Outcome outcome = player.play_text(text);
        EXPECT_EQ(outcome.status, 0) << row.file << ": " << outcome.errors;
    }
}

} // namespace
} // namespace vvl
