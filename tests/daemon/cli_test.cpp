// The command line of kestrd, run as a real process: exact standard output,
// exit status 0 in every case.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/netns.h"
#include "tests/support/xmldbd.h"

namespace {

using namespace std::chrono_literals;

const std::string kUsage =
    "Usage: kestrd {cmd} \n"
    "    kestrd apclone_24G\n"
    "    kestrd apclone_5G\n"
    "    kestrd apclone_deamon\n";

struct KestrdRun {
    std::string out;
    std::string err;
    int status = -1;  // exit status; -1 when it had to be killed
};

std::string slurp(const std::string& path) {
    std::ifstream f(path);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

// Runs kestrd with `args`; a process still running after `limit` gets
// SIGTERM (the registrar never ends by itself).
KestrdRun run_kestrd(const std::vector<std::string>& args, std::chrono::milliseconds limit) {
    char out_path[] = "/tmp/kestrd-cli-out.XXXXXX";
    char err_path[] = "/tmp/kestrd-cli-err.XXXXXX";
    const int out_fd = mkstemp(out_path);
    const int err_fd = mkstemp(err_path);
    const std::string bin = kestr::test::tool_path("kestrd");
    std::vector<char*> argv{const_cast<char*>(bin.c_str())};
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out_fd);
    close(err_fd);
    KestrdRun run;
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    bool done = false;
    while (!done && std::chrono::steady_clock::now() < deadline) {
        done = waitpid(pid, &status, WNOHANG) == pid;
        if (!done)
            std::this_thread::sleep_for(20ms);
    }
    if (!done) {
        kill(pid, SIGTERM);
        waitpid(pid, &status, 0);
    } else if (WIFEXITED(status)) {
        run.status = WEXITSTATUS(status);
    }
    run.out = slurp(out_path);
    run.err = slurp(err_path);
    unlink(out_path);
    unlink(err_path);
    return run;
}

TEST(CommandLine, UsageHelpAndUnknownWords) {
    KESTR_ENTER_NAMESPACES({.bridge = false});  // nothing may reach a link
    std::vector<std::string> many(32, "apclone_24G");
    std::vector<std::string> most(31, "x");
    most[0] = "help";
    struct Case {
        const char* what;
        std::vector<std::string> args;
        std::string out;
    } cases[] = {
        {"no word", {}, kUsage},
        {"32 words after the name", many, kUsage},
        {"31 words, the first help", most, kUsage},
        {"help", {"help"}, kUsage},
        {"help2", {"help2"}, "argv[1]:help2\n" + kUsage},
        {"HELP", {"HELP"}, "argv[1]:HELP\n" + kUsage},
        {"apclone_5 (too short)", {"apclone_5"}, "argv[1]:apclone_5\n" + kUsage},
        {"empty word", {""}, "argv[1]:\n" + kUsage},
        {"a percent sign is echoed, not formatted", {"%s%n"}, "argv[1]:%s%n\n" + kUsage},
    };
    for (const auto& c : cases) {
        const KestrdRun r = run_kestrd(c.args, 5s);
        EXPECT_EQ(r.status, 0) << c.what;
        EXPECT_EQ(r.out, c.out) << c.what;
        EXPECT_EQ(r.err, "") << c.what;
    }
}

TEST(CommandLine, RegistrarModeNeedsTheRegistrarRole) {
    // No br0 here: a daemon that went on to open its socket would complain on
    // standard error, so an empty standard error shows it did not.
    KESTR_ENTER_NAMESPACES({.bridge = false});
    for (const char* role : {"1", "2", "7"}) {
        kestr::test::XmldbdProcess db;
        ASSERT_TRUE(db.ok());
        ASSERT_EQ(kestr::test::db_set("/device/apcloning/role", role), 0);
        const KestrdRun r = run_kestrd({"apclone_deamon"}, 5s);
        EXPECT_EQ(r.status, 0) << role;
        EXPECT_EQ(kestr::test::mask_line_numbers(r.out),
                  "argv[1]:apclone_deamon\n"
                  "err:kestrd-param_parse-N|\x1b[1;35;40;1mrole is not RoleTypeRegistrar\n\x1b[0m")
            << role;
        EXPECT_EQ(r.err, "") << role;
    }
}

TEST(CommandLine, RunWordsAreRecognisedAsPrefixes) {
    KESTR_ENTER_NAMESPACES();
    kestr::test::XmldbdProcess db(kestr::test::seed_path("registrar.xml"));
    ASSERT_TRUE(db.ok());
    // A registrar runs until it is killed: still running after a second.
    KestrdRun r = run_kestrd({"apclone_deamonXYZ", "ignored"}, 1500ms);
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(r.out.rfind("argv[1]:apclone_deamonXYZ\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("(name:msgProcess)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("(name:request_list)"), std::string::npos) << r.out;

    // An enrollee word with a tail selects that band's run; alone on the
    // link, it ends by itself with status 0.
    ASSERT_EQ(kestr::test::db_set("/device/apcloning/role", "1"), 0);
    r = run_kestrd({"apclone_5Gxyz"}, 15s);
    EXPECT_EQ(r.status, 0);
    const std::string out = kestr::test::mask_line_numbers(r.out);
    EXPECT_NE(out.find("IEEE19051_CmdApcloneProcess_5G"), std::string::npos) << out;
    EXPECT_NE(out.find("exit:send search, but no response\n"), std::string::npos) << out;
    EXPECT_EQ(kestr::test::db_get("/runtime/apcloning/BAND_5G/done"), "1");
}

}  // namespace
