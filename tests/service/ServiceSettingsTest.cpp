// The settings file an operator edits: read as the long options it names, the command line
// still winning, and a bad line or value refusing to start with a sentence.
#include "service/ServiceTestSupport.h"

#include "service/CommandLine.h"
#include "service/SettingsFile.h"
#include "support/ChildProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using Arguments = std::vector<std::string>;

namespace {

std::string errorOf(const std::string &path)
{
    try {
        SettingsFile::read(path);
    } catch (const CommandLine::Error &error) {
        return error.what();
    }
    return "(no error)";
}

struct Outcome
{
    int status;
    std::string errors;
};

Outcome runService(const fs::path &folder, const Arguments &arguments)
{
    Arguments argv {std::getenv("VANTREL_TEST_SERVICE_BIN")};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const fs::path errors = folder / "errors.txt";
    ChildProcess process(argv, {}, errors.string());
    const int status = process.wait();
    return {status, readFile(errors)};
}

} // namespace

TEST(ServiceSettingsTest, TheFileReadsAsLongOptionsAndTheCommandLineWins)
{
    TempFolder folder;
    const fs::path file = folder.path() / "service.conf";
    writeFile(file,
              "# the operator's notes\n"
              "\n"
              "  listen =  127.0.0.1:9000  \n"
              "trusted-proxy = 127.0.0.1\n"
              "trusted-proxy = ::1\n"
              "quiet = true\n"
              "verbose = false\n"
              "tls-key = /etc/keys/a=b.pem\n");
    const Arguments fromFile {"--listen=127.0.0.1:9000", "--trusted-proxy=127.0.0.1",
                              "--trusted-proxy=::1", "--quiet", "--tls-key=/etc/keys/a=b.pem"};
    EXPECT_EQ(SettingsFile::read(file.string()), fromFile);

    // Named either way, the file's options come first, so an option given again on the command
    // line is the one that counts.
    std::string used;
    Arguments expanded =
        SettingsFile::expand({"--listen", "127.0.0.1:1", "--settings", file.string()}, used);
    EXPECT_EQ(used, file.string());
    Arguments expected = fromFile;
    expected.insert(expected.end(), {"--listen", "127.0.0.1:1"});
    EXPECT_EQ(expanded, expected);
    const CommandLine line(expanded, {"listen", "trusted-proxy", "tls-key"}, {"quiet"});
    EXPECT_EQ(line.option("listen"), "127.0.0.1:1");
    EXPECT_EQ(line.values("trusted-proxy"), Arguments({"127.0.0.1", "::1"}));
    EXPECT_EQ(SettingsFile::expand({"--settings=" + file.string()}, used), fromFile);
    EXPECT_EQ(SettingsFile::expand({"--quiet"}, used), Arguments({"--quiet"}));
    EXPECT_EQ(used, "");

    // The other commands take only the data folder from it, and never over their own --data.
    writeFile(file, "data = /srv/clips\nlisten = 127.0.0.1:9000\n");
    EXPECT_EQ(SettingsFile::dataOnly({"a@example.org", "--settings", file.string()}),
              Arguments({"a@example.org", "--data=/srv/clips"}));
    EXPECT_EQ(SettingsFile::dataOnly({"--data=/x", "--settings", file.string()}),
              Arguments({"--data=/x"}));

    // What is not a setting is named with its line.
    for (const auto &[text, error] : std::vector<std::pair<std::string, std::string>> {
             {"listen = 127.0.0.1:1\nlisten 127.0.0.1:2\n",
              " line 2 is not a setting: write it as name = value."},
             {"--listen = 127.0.0.1:1\n", " line 1: \"--listen\" is not the name of a setting"},
             {"settings = /etc/other.conf\n", " line 1: \"settings\" is not the name"},
             {"# fine\nmax-upload =\n", " line 2: max-upload has no value."}}) {
        writeFile(file, text);
        EXPECT_NE(errorOf(file.string()).find(file.string() + error), std::string::npos)
            << text << " gives " << errorOf(file.string());
    }
    EXPECT_NE(errorOf((folder.path() / "missing.conf").string()).find("Cannot read the settings"),
              std::string::npos);
}

TEST(ServiceSettingsTest, TheServiceStartsFromItsSettingsAndRefusesBadOnes)
{
    TempFolder folder;
    const fs::path data = folder.path() / "data";
    const fs::path file = folder.path() / "service.conf";
    const std::string good = "data = " + data.string() +
        "\nlisten = 127.0.0.1:0\npublic-url = http://127.0.0.1:8443\nquiet = true\n";

    // Each refusal is a sentence naming what to fix, before anything is served or written.
    for (const auto &[extra, sentence] : std::vector<std::pair<std::string, std::string>> {
             {"max-upload = lots\n", "--max-upload"},
             {"colour = red\n", "Unknown option --colour."},
             {"listen: 127.0.0.1:1\n", "line 5 is not a setting"},
             {"public-url = clips.example.org\n", "--public-url takes the address"}}) {
        writeFile(file, good + extra);
        const Outcome run = runService(folder.path(), {"serve", "--settings", file.string()});
        EXPECT_EQ(run.status, 2) << extra;
        EXPECT_NE(run.errors.find(sentence), std::string::npos) << extra << run.errors;
        EXPECT_NE(run.errors.find("the settings of " + file.string()), std::string::npos);
        EXPECT_FALSE(fs::exists(data / "records.sqlite3")) << extra;
    }

    writeFile(file, good);
    const fs::path log = folder.path() / "serve.log";
    {
        ChildProcess serve(
            {std::getenv("VANTREL_TEST_SERVICE_BIN"), "serve", "--settings", file.string()}, {},
            log.string());
        const auto line = serve.readLine(std::chrono::seconds(30));
        ASSERT_TRUE(line) << readFile(log);
        EXPECT_NE(line->find("listening on http://127.0.0.1:"), std::string::npos) << *line;
        EXPECT_NE(line->find("for http://127.0.0.1:8443"), std::string::npos) << *line;
        serve.signal(SIGTERM);
        EXPECT_EQ(serve.wait(), 0);
    }

    // The operator's commands find the same data through the file.
    const Outcome added =
        runService(folder.path(),
                   {"user", "add", "op@example.org", "--name", "Op", "--settings", file.string()});
    EXPECT_NE(added.status, 0); // no password on standard input: refused, but in that folder
    EXPECT_NE(added.errors.find("password"), std::string::npos) << added.errors;
    const Outcome issued = runService(
        folder.path(), {"token", "issue", "op@example.org", "--settings", file.string()});
    EXPECT_EQ(issued.status, 1);
    EXPECT_NE(issued.errors.find("There is no account with the email op@example.org"),
              std::string::npos)
        << issued.errors;
    EXPECT_TRUE(fs::exists(data / "records.sqlite3"));
}

TEST(ServiceSettingsTest, RootWorksOnAnotherUsersDataFolderAsThatUser)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    TempFolder folder;
    fs::permissions(folder.path(),
                    fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    const fs::path data = folder.path() / "data";
    fs::create_directory(data);
    fs::permissions(data, fs::perms::owner_all);
    const uid_t nobody = 65534;
    ASSERT_EQ(::chown(data.c_str(), nobody, nobody), 0);

    const fs::path errors = folder.path() / "errors.txt";
    ChildProcess add({"sh", "-c",
                      "printf 'a fine password\\n' | \"$0\" user add op@example.org "
                      "--name Op --data \"$1\"",
                      std::getenv("VANTREL_TEST_SERVICE_BIN"), data.string()},
                     {}, errors.string());
    ASSERT_EQ(add.wait(), 0) << readFile(errors);
    EXPECT_NE(readFile(errors).find("as its owner, nobody"), std::string::npos) << readFile(errors);
    // Everything it wrote is the folder owner's, so the service running as that user can open it.
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(data)) {
        struct stat info
        {
        };
        ASSERT_EQ(::stat(entry.path().c_str(), &info), 0);
        EXPECT_EQ(info.st_uid, nobody) << entry.path();
    }
    EXPECT_TRUE(fs::exists(data / "records.sqlite3"));
}
