#include "service/StoreOptions.h"

#include "service/DataFolder.h"
#include "service/DiskFileStore.h"
#include "service/PostgresDatabase.h"
#include "service/PostgresRecordStore.h"
#include "service/S3FileStore.h"
#include "service/SqliteRecordStore.h"

#include <cstdlib>
#include <fstream>

namespace {

std::optional<std::string> fromEnvironment(std::initializer_list<const char *> names)
{
    for (const char *name : names) {
        const char *value = std::getenv(name);
        if (value && *value)
            return std::string(value);
    }
    return std::nullopt;
}

std::string firstLine(const std::string &path)
{
    std::ifstream in(path);
    std::string line;
    if (!in || !std::getline(in, line))
        throw CommandLine::Error("--s3-secret-key-file: cannot read " + path + ".");
    while (!line.empty() && (line.back() == '\r' || line.back() == ' '))
        line.pop_back();
    return line;
}

S3Settings s3Settings(const CommandLine &line, const std::string &bucket)
{
    S3Settings settings;
    settings.bucket = bucket;
    settings.endpoint =
        line.option("s3-endpoint")
            .value_or(fromEnvironment({"AWS_ENDPOINT_URL_S3", "AWS_ENDPOINT_URL"}).value_or(""));
    settings.region =
        line.option("s3-region")
            .value_or(fromEnvironment({"AWS_REGION", "AWS_DEFAULT_REGION"}).value_or("us-east-1"));
    settings.accessKey =
        line.option("s3-access-key").value_or(fromEnvironment({"AWS_ACCESS_KEY_ID"}).value_or(""));
    if (const std::optional<std::string> file = line.option("s3-secret-key-file"))
        settings.secretKey = firstLine(*file);
    else
        settings.secretKey = fromEnvironment({"AWS_SECRET_ACCESS_KEY"}).value_or("");
    if (settings.endpoint.empty())
        settings.endpoint = "https://s3." + settings.region + ".amazonaws.com";
    if (settings.endpoint.rfind("https://", 0) != 0 && settings.endpoint.rfind("http://", 0) != 0)
        throw CommandLine::Error("--s3-endpoint takes the S3 server's address, such as "
                                 "https://s3.example.org.");
    if (settings.accessKey.empty() || settings.secretKey.empty())
        throw CommandLine::Error("--files s3://… needs the store's keys: --s3-access-key and "
                                 "--s3-secret-key-file, or AWS_ACCESS_KEY_ID and "
                                 "AWS_SECRET_ACCESS_KEY.");
    return settings;
}

} // namespace

namespace StoreOptions {

const std::set<std::string> &names()
{
    static const std::set<std::string> all {
        "data",          "database",          "files", "s3-endpoint", "s3-region",
        "s3-access-key", "s3-secret-key-file"};
    return all;
}

bool isPostgresUrl(const std::string &url)
{
    return url.rfind("postgresql://", 0) == 0 || url.rfind("postgres://", 0) == 0;
}

std::optional<std::pair<std::string, std::string>> parseS3Address(const std::string &address)
{
    if (address.rfind("s3://", 0) != 0)
        return std::nullopt;
    const std::string rest = address.substr(5);
    const size_t slash = rest.find('/');
    std::string bucket = rest.substr(0, slash);
    std::string prefix = slash == std::string::npos ? std::string() : rest.substr(slash + 1);
    while (!prefix.empty() && prefix.back() == '/')
        prefix.pop_back();
    // Bucket names as S3 allows them: 3 to 63 of lower-case letters, digits, dots and dashes.
    const bool bucketOk = bucket.size() >= 3 && bucket.size() <= 63 &&
        bucket.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789.-") == std::string::npos;
    const bool prefixOk = prefix.find("//") == std::string::npos &&
        prefix.find("..") == std::string::npos &&
        prefix.find_first_of("\\?#\r\n") == std::string::npos;
    if (!bucketOk || !prefixOk)
        return std::nullopt;
    return std::pair {bucket, prefix};
}

Choice parse(const CommandLine &line, bool needsFiles)
{
    Choice choice;
    if (const std::optional<std::string> database = line.option("database")) {
        if (!isPostgresUrl(*database))
            throw CommandLine::Error("--database takes a PostgreSQL address, such as "
                                     "postgresql://vantrel@db.example.org/vantrel.");
        choice.database = *database;
    }
    if (const std::optional<std::string> files = line.option("files"); files && needsFiles) {
        const auto address = parseS3Address(*files);
        if (!address)
            throw CommandLine::Error("--files takes an S3 bucket and prefix, such as "
                                     "s3://vantrel-clips/clips.");
        choice.s3 = s3Settings(line, address->first);
        choice.s3Prefix = address->second;
    }
    // A local folder is needed for SQLite, for files on disk, and for pending files.
    const bool local = !choice.database || needsFiles;
    if (local)
        choice.data = line.required("data");
    else
        choice.data = line.option("data").value_or("");
    if (!choice.data.empty())
        DataFolder::prepare(choice.data);
    return choice;
}

std::unique_ptr<RecordStore> openRecords(const Choice &choice, int connections)
{
    if (choice.database)
        return std::make_unique<PostgresRecordStore>(*choice.database, connections);
    return std::make_unique<SqliteRecordStore>(choice.data + "/records.sqlite3");
}

std::unique_ptr<FileStore> openFiles(const Choice &choice)
{
    if (choice.s3)
        return std::make_unique<S3FileStore>(*choice.s3, choice.s3Prefix, choice.data);
    return std::make_unique<DiskFileStore>(choice.data);
}

std::string describe(const Choice &choice)
{
    const std::string records = choice.database
        ? "PostgreSQL at " + PostgresDatabase::withoutPassword(*choice.database)
        : "SQLite in " + choice.data;
    const std::string files = choice.s3
        ? "s3://" + choice.s3->bucket + "/" + choice.s3Prefix + " at " + choice.s3->endpoint
        : choice.data;
    return "records: " + records + "; files: " + files;
}

} // namespace StoreOptions
