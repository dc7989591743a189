// Helper programs run without a shell, bounded, with their output in a log.
#include "hardware/run_program.h"

#include <gtest/gtest.h>

#include "support/text_file.h"
#include "test_temp_folder.h"

namespace {

using namespace std::chrono_literals;

struct Case {
    const char* name;
    std::string path;
    std::vector<std::string> args;
    std::chrono::milliseconds timeout;
    bool abandon;
    bool started, succeeded, timed_out, abandoned;
    int exit_code;
    std::string last_line;
};

}  // namespace

TEST(RunProgram, EndsAsTheProgramDidOrIsStoppedAtItsBound) {
    TestTempFolder folder;
    const std::string log = (folder.path() / "tool.log").string();
    // A word a shell would split or run as a second command.
    const std::string hostile = "a b; touch " + (folder.path() / "ran").string();
    const Case cases[] = {
        {"exit 0, last line kept", "/usr/bin/printf", {"one\\ntwo\\n"}, 5s, false, true, true, false, false, 0, "two"},
        {"exit code passed on", "/usr/bin/false", {}, 5s, false, true, false, false, false, 1, ""},
        {"argument with blanks and ; is one word", "/usr/bin/echo", {hostile}, 5s, false, true, true, false, false, 0,
         hostile},
        {"killed at the timeout", "/usr/bin/sleep", {"30"}, 100ms, false, true, false, true, false, -1, ""},
        {"killed when abandoned", "/usr/bin/sleep", {"30"}, 30s, true, true, false, false, true, -1, ""},
        {"missing program", (folder.path() / "no_such_tool").string(), {}, 5s, false, false, false, false, false, -1,
         ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto begun = std::chrono::steady_clock::now();
        const ProgramRun run = run_program(c.path, c.args, c.timeout, log, [&] { return c.abandon; });
        EXPECT_EQ(run.started, c.started);
        EXPECT_EQ(run.succeeded(), c.succeeded) << run.error;
        EXPECT_EQ(run.timed_out, c.timed_out);
        EXPECT_EQ(run.abandoned, c.abandoned);
        EXPECT_EQ(run.exit_code, c.exit_code);
        EXPECT_EQ(run.last_line, c.last_line);
        EXPECT_EQ(run.succeeded(), run.error.empty()) << run.error;
        // A killed program is reaped at once, not after its own 30 s.
        EXPECT_LT(std::chrono::steady_clock::now() - begun, 10s);
    }
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "ran"));
    const std::string text = lw_test::read_text(log);
    // Each run is named in the log, quoted so it can be typed back.
    EXPECT_NE(text.find("$ /usr/bin/echo '" + hostile + "'\n" + hostile + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("cannot start"), std::string::npos) << text;
}
