#pragma once

#include <httplib.h>

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

class ChildProcess;

// A running vantrel-service as a test reaches it.
struct ServiceEndpoint
{
    std::string url; // https://127.0.0.1:PORT
    int port = 0;
    std::string ca; // the certificate a client trusts
    std::string data; // its --data folder
    std::string binary;
    // On shared stores: its PostgreSQL database and S3 place (s3://BUCKET/PREFIX); empty for
    // SQLite and the data folder.
    std::string database;
    std::string files;

    bool sharedStores() const { return !database.empty(); }
    // The options that name its stores, for its commands.
    std::vector<std::string> storeOptions() const;
};

// The server of the ctest fixture "service", or the pair of "service_pair".
ServiceEndpoint fixtureService();

// True when the test runs against the service on PostgreSQL and S3.
bool onSharedStores();

// A server of the test's own, for what the shared one must not be put through: its own data
// folder and certificate, options of its own, killed and restarted at will. On shared stores it
// gets a database and a place in the bucket of its own, or those of `sibling` (a second process
// of the same service).
class OwnService
{
public:
    // Where its records and files live: as the test runs (SQLite and the data folder, or
    // PostgreSQL and S3), always in the data folder, or in stores named by the test.
    enum class Stores { asTheTestRuns, dataFolder };

    explicit OwnService(std::vector<std::string> extraOptions = {},
                        Stores stores = Stores::asTheTestRuns);
    OwnService(const OwnService &sibling, std::vector<std::string> extraOptions);
    OwnService(const std::string &database, const std::string &files,
               std::vector<std::string> extraOptions);
    ~OwnService();

    const ServiceEndpoint &endpoint() const { return m_endpoint; }
    // Starts (again) on the same data folder and port.
    void start();
    void kill9();
    pid_t pid() const;
    // Its standard error: the request log.
    std::filesystem::path logPath() const { return m_folder / "service.log"; }

private:
    void prepare(std::vector<std::string> extraOptions);

    std::filesystem::path m_folder;
    std::vector<std::string> m_options;
    bool m_ownsDatabase = false;
    ServiceEndpoint m_endpoint;
    std::unique_ptr<ChildProcess> m_process;
};

// The operator's command line against a service's data folder.
struct CommandResult
{
    int status = -1;
    std::string output; // standard output
    std::string errors; // standard error
};
CommandResult runCommand(const ServiceEndpoint &service, const std::vector<std::string> &arguments,
                         const std::string &input = {});
// Adds an account with a unique email made from `name`; returns the email.
std::string addUser(const ServiceEndpoint &service, const std::string &name,
                    const std::string &password = "correct horse");
std::string issueToken(const ServiceEndpoint &service, const std::string &email);

// An HTTPS client that trusts only the service's certificate.
std::unique_ptr<httplib::SSLClient> client(const ServiceEndpoint &service);
httplib::Headers bearer(const std::string &token);

// curl with the service's certificate; returns the status and writes the body to `output`.
int curl(const ServiceEndpoint &service, const std::vector<std::string> &arguments,
         const std::filesystem::path &output);

// A real H.264/AAC MP4 from ffmpeg's test source.
std::filesystem::path makeClip(const std::filesystem::path &folder, const std::string &name,
                               double seconds = 2, const std::string &size = "320x180");

// The clip files, posters and pending uploads of a service, wherever its store keeps them:
// `folder` is "clips", "posters" or "tmp" (the pending files, always in the data folder). On S3
// they are reached with curl, a client of the tests' own.
int countStored(const ServiceEndpoint &service, const std::string &folder);
bool storedExists(const ServiceEndpoint &service, const std::string &folder,
                  const std::string &name);
void removeStored(const ServiceEndpoint &service, const std::string &folder,
                  const std::string &name);
void putStored(const ServiceEndpoint &service, const std::string &folder, const std::string &name,
               const std::string &content);
// Waits until the clip's poster is served (it is made after the upload's answer).
bool waitForPoster(const ServiceEndpoint &service, const std::string &id);
// A new, empty database on the fixture's PostgreSQL server; returns its URL.
std::string makeDatabase();
// One value from the service's PostgreSQL database.
std::string databaseValue(const ServiceEndpoint &service, const std::string &query);

std::string readFile(const std::filesystem::path &path);
void writeFile(const std::filesystem::path &path, const std::string &content);
std::string md5(const std::string &bytes);
int countFiles(const std::filesystem::path &folder);

// A fresh temporary folder removed when the test ends.
class TempFolder
{
public:
    TempFolder();
    ~TempFolder();
    const std::filesystem::path &path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

// Waits until `done` is true or the time runs out; returns `done`'s last answer.
bool waitFor(const std::function<bool()> &done,
             std::chrono::milliseconds timeout = std::chrono::seconds(10));
