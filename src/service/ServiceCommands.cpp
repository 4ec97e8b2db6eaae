#include "service/ServiceCommands.h"

#include "service/ClipVetting.h"
#include "service/ClipRemoval.h"
#include "service/CommandLine.h"
#include "service/MigrateCommand.h"
#include "service/ReleaseVersion.h"
#include "service/Secrets.h"
#include "service/ServeCommand.h"
#include "service/ServiceAccount.h"
#include "service/ServiceContext.h"
#include "service/SettingsFile.h"
#include "service/SqliteRecordStore.h"
#include "service/StoreOptions.h"
#include "service/TextRules.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace {

using Arguments = std::vector<std::string>;

// The stores a command's options name; the files only for the commands that touch them.
struct Stores
{
    Stores(const CommandLine &line, bool needsFiles)
        : choice(StoreOptions::parse(line, needsFiles))
        , records(StoreOptions::openRecords(choice, 2))
        , files(needsFiles ? StoreOptions::openFiles(choice) : nullptr)
    {
    }
    StoreOptions::Choice choice;
    std::unique_ptr<RecordStore> records;
    std::unique_ptr<FileStore> files;
};

// A command's own options and those that name the stores.
std::set<std::string> optionsWith(std::set<std::string> own)
{
    own.insert(StoreOptions::names().begin(), StoreOptions::names().end());
    return own;
}

void expectWords(const CommandLine &line, size_t count, const std::string &form)
{
    if (line.words().size() != count)
        throw CommandLine::Error("Usage: vantrel-service " + form);
}

// One line from standard input, without its line break; with echo off when a person types it.
std::string readPassword()
{
    const bool typed = ::isatty(STDIN_FILENO);
    termios saved {};
    if (typed) {
        std::fputs("Password: ", stderr);
        ::tcgetattr(STDIN_FILENO, &saved);
        termios quiet = saved;
        quiet.c_lflag &= ~tcflag_t(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    std::string password;
    std::getline(std::cin, password);
    if (typed) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        std::fputs("\n", stderr);
    }
    if (!password.empty() && password.back() == '\r')
        password.pop_back();
    return password;
}

std::string readFile(const std::string &path, uint64_t limit)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("Cannot read " + path + ".");
    std::ostringstream text;
    text << in.rdbuf();
    std::string content = text.str();
    if (content.size() > limit)
        throw std::runtime_error(path + " is larger than " + std::to_string(limit) + " bytes.");
    return content;
}

UserRecord userFor(Stores &stores, const std::string &email)
{
    std::optional<UserRecord> user = stores.records->userByEmail(email);
    if (!user)
        throw std::runtime_error("There is no account with the email " + email + ".");
    return *user;
}

int userAdd(const Arguments &arguments)
{
    const CommandLine line(arguments, optionsWith({"name"}));
    expectWords(line, 1, "user add EMAIL --name NAME --data DIR   (password on standard input)");
    const std::string email = line.words()[0];
    if (!TextRules::looksLikeEmail(email))
        throw CommandLine::Error("\"" + email + "\" is not an email address.");
    const std::optional<std::string> name = TextRules::cleanLine(line.required("name"));
    if (!name || name->empty() || TextRules::characterCount(*name) > 100)
        throw CommandLine::Error("--name takes a name of 1 to 100 characters.");
    Stores stores(line, false);
    if (stores.records->userByEmail(email))
        throw std::runtime_error("An account with the email " + email + " exists already.");
    const std::string password = readPassword();
    if (password.size() < 8 || password.size() > 1024)
        throw std::runtime_error("The password must have at least 8 characters.");

    UserRecord user;
    user.id = Secrets::randomId(12);
    user.email = email;
    user.name = *name;
    user.passwordHash = Secrets::hashPassword(password);
    user.createdAt = unixNow();
    do
        user.vantrelCode = Secrets::userCode();
    while (stores.records->vantrelCodeTaken(user.vantrelCode));
    if (!stores.records->addUser(user))
        throw std::runtime_error("An account with the email " + email + " exists already.");
    std::fprintf(stderr, "Added %s <%s>, Vantrel code %s.\n", user.name.c_str(), user.email.c_str(),
                 user.vantrelCode.c_str());
    return 0;
}

int tokenIssue(const Arguments &arguments)
{
    const CommandLine line(arguments, optionsWith({}));
    expectWords(line, 1, "token issue EMAIL --data DIR");
    Stores stores(line, false);
    const UserRecord user = userFor(stores, line.words()[0]);
    const std::string token = Secrets::newToken();
    stores.records->addToken(Secrets::tokenHash(token), user.id, TokenKind::app, unixNow(), 0);
    std::printf("%s\n", token.c_str());
    return 0;
}

int tokenRevoke(const Arguments &arguments)
{
    const CommandLine line(arguments, optionsWith({"all"}));
    Stores stores(line, false);
    if (const std::optional<std::string> email = line.option("all")) {
        expectWords(line, 0, "token revoke --all EMAIL --data DIR");
        const int count = stores.records->revokeAllTokens(userFor(stores, *email).id, unixNow());
        std::fprintf(stderr, "Revoked %d token(s) of %s.\n", count, email->c_str());
        return 0;
    }
    expectWords(line, 1, "token revoke TOKEN|- --data DIR   (or --all EMAIL)");
    std::string token = line.words()[0];
    // "-" keeps the token out of the process list and the shell's history.
    if (token == "-")
        std::getline(std::cin, token);
    if (!stores.records->revokeToken(Secrets::tokenHash(token), unixNow()))
        throw std::runtime_error("No live token matches.");
    std::fputs("Revoked.\n", stderr);
    return 0;
}

int releaseAdd(const Arguments &arguments)
{
    const CommandLine line(arguments, optionsWith({"notes", "signature"}));
    expectWords(line, 2, "release add VERSION ARCHIVE --notes TEXT --signature FILE --data DIR");
    const std::string version = line.words()[0];
    const std::string archive = line.words()[1];
    if (!ReleaseVersion::isValid(version))
        throw CommandLine::Error("\"" + version + "\" is not a version such as 1.2.0.");
    const std::optional<std::string> notes = line.option("notes");
    if (!notes)
        throw CommandLine::Error("--notes is required.");
    const std::string signature = readFile(line.required("signature"), 64);
    if (signature.size() != 64)
        throw std::runtime_error("The signature must be the 64 raw bytes of an Ed25519 signature.");

    Stores stores(line, true);
    for (const ReleaseRecord &existing : stores.records->releases())
        if (existing.version == version)
            throw std::runtime_error("Release " + version + " exists already.");
    std::ifstream in(archive, std::ios::binary);
    if (!in)
        throw std::runtime_error("Cannot read " + archive + ".");
    const std::string fileName = ReleaseVersion::archiveName(version);
    std::unique_ptr<PendingFile> copy = stores.files->create(FileKind::release, fileName);
    std::vector<char> buffer(1 << 20);
    while (in.read(buffer.data(), std::streamsize(buffer.size())) || in.gcount() > 0)
        copy->write(buffer.data(), size_t(in.gcount()));
    if (in.bad() || copy->size() == 0)
        throw std::runtime_error("Cannot read " + archive + ", or it is empty.");
    copy->finish();

    ReleaseRecord release;
    release.version = version;
    release.notes = *notes;
    release.fileName = fileName;
    release.signatureBase64 = Secrets::base64(signature);
    release.sizeBytes = int64_t(copy->size());
    release.createdAt = unixNow();
    stores.files->commit(std::move(copy), FileKind::release, release.fileName);
    if (!stores.records->addRelease(release)) {
        stores.files->remove(FileKind::release, release.fileName);
        throw std::runtime_error("Release " + version + " exists already.");
    }
    std::fprintf(stderr, "Published %s at /download/%s.\n", version.c_str(),
                 release.fileName.c_str());
    return 0;
}

int clipDelete(const Arguments &arguments)
{
    const CommandLine line(arguments, optionsWith({}));
    expectWords(line, 1, "clip delete ID --data DIR");
    const std::string id = line.words()[0];
    Stores stores(line, true);
    const std::optional<ClipRecord> clip = stores.records->clip(id);
    if (!clip) {
        if (stores.records->clipDeleted(id))
            throw std::runtime_error("The clip " + id + " was deleted already.");
        throw std::runtime_error("There is no clip with the id " + id + ".");
    }
    const std::optional<UserRecord> owner = stores.records->userById(clip->userId);
    if (!ClipRemoval::remove(*stores.records, *stores.files, id))
        throw std::runtime_error("The clip " + id + " was deleted already.");
    std::fprintf(stderr, "Deleted the clip %s (\"%s\" by %s); its link now says it was deleted.\n",
                 id.c_str(), clip->name.c_str(), owner ? owner->email.c_str() : "nobody");
    return 0;
}

int adsSet(const Arguments &arguments)
{
    const CommandLine line(arguments, optionsWith({}));
    expectWords(line, 1, "ads set FILE --data DIR");
    const std::string text = readFile(line.words()[0], 1 << 20);
    const nlohmann::json ads = nlohmann::json::parse(text, nullptr, false);
    if (ads.is_discarded())
        throw std::runtime_error(line.words()[0] + " is not valid JSON.");
    if (!ads.is_object() || !ads.contains("slots") || !ads["slots"].is_array())
        throw std::runtime_error(line.words()[0] +
                                 " must be a JSON object whose \"slots\" is a list of cards.");
    Stores stores(line, false);
    stores.records->setAds(text);
    std::fprintf(stderr, "Stored %zu sponsor card(s).\n", ads["slots"].size());
    return 0;
}

} // namespace

namespace ServiceCommands {

std::string usage()
{
    return R"(Usage: vantrel-service COMMAND [OPTIONS]

The web service Vantrel signs in to and shares clips through.

Commands:
  serve --data DIR --public-url https://HOST [--listen 127.0.0.1:8443]
        [--database postgresql://USER@HOST/DB] [--files s3://BUCKET/PREFIX]
        [--s3-endpoint URL] [--s3-region NAME] [--s3-access-key ID]
        [--s3-secret-key-file FILE]
        [--tls-cert FILE --tls-key FILE] [--max-upload 2G]
        [--code-lifetime 600] [--poll-rate 60] [--token-rate 300]
        [--threads 64] [--trusted-proxy ADDRESS]...
        [--max-connections 1000] [--connections-per-address 32]
        [--handshake-timeout 10] [--head-timeout 10]
        [--poster-memory 512M] [--orphan-grace 3600] [--quiet] [--settings FILE]
      serve until stopped (SIGTERM or SIGINT)
  user add EMAIL --name NAME --data DIR
      add an account (the password comes on standard input)
  token issue EMAIL --data DIR
      print a new token for the account
  token revoke TOKEN|- --data DIR (or --all EMAIL)
      revoke one token ("-" reads it from standard input), or every token of an account
  release add VERSION ARCHIVE --notes TEXT --signature FILE --data DIR
      publish a signed release archive as the newest version
  clip delete ID --data DIR
      delete a clip; its link then says it was deleted
  ads set FILE --data DIR
      replace the sponsor cards with those of a JSON file
  migrate --data DIR --to postgresql://USER@HOST/DB [--files s3://BUCKET/PREFIX]
      copy an installation on SQLite and a folder to PostgreSQL (and S3), check every file,
      and leave the old data as it was

Shared stores:
The commands that change records take --database (and --files, --s3-...) as serve does, in place
of or beside --data. S3 keys may also come from AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY, the
endpoint from AWS_ENDPOINT_URL, the region from AWS_REGION.

Settings file:
The file named by --settings holds options, one "name = value" a line, each a long option
without its dashes ("listen = 127.0.0.1:8443", "trusted-proxy = 127.0.0.1" once per address,
"quiet = true" for a flag); lines starting with # are comments. Options on the command line
come after the file's and win. Every command but serve takes only "data" from it, and without
--data or --settings they read /etc/vantrel-service/vantrel-service.conf when it exists. A
command run as root on a data folder that belongs to another user (the installed service's)
works as that user.
)";
}

int run(const std::vector<std::string> &arguments)
{
    const auto starts = [&](std::initializer_list<const char *> words) {
        if (arguments.size() < words.size())
            return false;
        size_t i = 0;
        for (const char *word : words)
            if (arguments[i++] != word)
                return false;
        return true;
    };
    // serve takes every setting of the settings file; the other commands only its data folder.
    std::string settings;
    const auto rest = [&](size_t from) {
        Arguments tail(arguments.begin() + long(from), arguments.end());
        tail =
            starts({"serve"}) ? SettingsFile::expand(tail, settings) : SettingsFile::dataOnly(tail);
        ServiceAccount::becomeDataOwner(tail);
        return tail;
    };
    // Whatever the service writes (the records, clips, the lock) is for its own account only.
    ::umask(077);
    try {
        if (!Secrets::initialize())
            throw std::runtime_error("libsodium could not start.");
        if (starts({"serve"}))
            return ServeCommand::run(rest(1));
        // Not for people: the server runs this to check an upload in a process of its own.
        if (starts({"inspect-clip"}))
            return ClipVetting::child(Arguments(arguments.begin() + 1, arguments.end()));
        if (starts({"user", "add"}))
            return userAdd(rest(2));
        if (starts({"token", "issue"}))
            return tokenIssue(rest(2));
        if (starts({"token", "revoke"}))
            return tokenRevoke(rest(2));
        if (starts({"release", "add"}))
            return releaseAdd(rest(2));
        if (starts({"migrate"}))
            return MigrateCommand::run(rest(1));
        if (starts({"clip", "delete"}))
            return clipDelete(rest(2));
        if (starts({"ads", "set"}))
            return adsSet(rest(2));
        if (starts({"--help"}) || starts({"help"})) {
            std::fputs(usage().c_str(), stdout);
            return 0;
        }
        std::fputs(usage().c_str(), stderr);
        return 2;
    } catch (const CommandLine::Error &e) {
        std::fprintf(stderr, "vantrel-service: %s\n", e.what());
        if (!settings.empty())
            std::fprintf(stderr, "vantrel-service: (the settings of %s count as options)\n",
                         settings.c_str());
        return 2;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "vantrel-service: %s\n", e.what());
        return 1;
    }
}

} // namespace ServiceCommands
