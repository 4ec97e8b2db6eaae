#include "service/ServiceTestSupport.h"

#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::string environment(const char *name)
{
    const char *value = std::getenv(name);
    if (!value || !*value)
        throw std::runtime_error(std::string(name) + " is not set: run this test through ctest");
    return value;
}

std::string uniqueSuffix()
{
    static std::atomic<int> counter {0};
    std::random_device random;
    return std::to_string(::getpid()) + "-" + std::to_string(counter++) + "-" +
        std::to_string(random() % 100000);
}

int run(const std::vector<std::string> &argv, std::string *output = nullptr)
{
    ChildProcess process(argv);
    std::string text;
    while (auto line = process.readLine(std::chrono::seconds(60)))
        text += *line + "\n";
    if (output)
        *output = text;
    return process.wait(std::chrono::seconds(60));
}

// The S3 fixture's endpoint and keys (S3_ENDPOINT, AWS_*), put in this process's environment
// once, so that the servers and commands it starts find them there too.
void loadS3Environment()
{
    static const bool loaded = [] {
        std::ifstream in(environment("VANTREL_TEST_S3_ENV"));
        std::string line;
        while (std::getline(in, line))
            if (const size_t equals = line.find('='); equals != std::string::npos)
                ::setenv(line.substr(0, equals).c_str(), line.substr(equals + 1).c_str(), 1);
        return true;
    }();
    (void)loaded;
}

// Runs one statement on the fixture's PostgreSQL server (database "postgres").
void administer(const std::string &statement)
{
    PGconn *connection = PQconnectdb((environment("VANTREL_TEST_POSTGRES") + "/postgres").c_str());
    PGresult *result = PQexec(connection, statement.c_str());
    const bool ok = PQresultStatus(result) == PGRES_COMMAND_OK;
    const std::string message = PQerrorMessage(connection);
    PQclear(result);
    PQfinish(connection);
    if (!ok)
        throw std::runtime_error(statement + ": " + message);
}

// The S3 object of a stored file: "s3://BUCKET/PREFIX" and "clips", "ID.mp4".
std::string objectUrl(const ServiceEndpoint &service, const std::string &folder,
                      const std::string &name)
{
    const std::string place = service.files.substr(5);
    return environment("S3_ENDPOINT") + "/" + place + "/" + folder + "/" + name;
}

// curl signed for the S3 fixture; returns the HTTP status.
int s3curl(std::vector<std::string> arguments, std::string *body = nullptr)
{
    std::vector<std::string> argv {
        "curl",
        "-s",
        "-o",
        "/dev/stdout",
        "-w",
        "\n%{http_code}\n",
        "--aws-sigv4",
        "aws:amz:" + environment("AWS_REGION") + ":s3",
        "--user",
        environment("AWS_ACCESS_KEY_ID") + ":" + environment("AWS_SECRET_ACCESS_KEY"),
        "-H",
        "x-amz-content-sha256: UNSIGNED-PAYLOAD"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::string output;
    run(argv, &output);
    while (!output.empty() && output.back() == '\n')
        output.pop_back();
    const size_t last = output.rfind('\n');
    if (body)
        *body = last == std::string::npos ? std::string() : output.substr(0, last);
    return std::atoi(output.c_str() + (last == std::string::npos ? 0 : last + 1));
}

// A fixture whose server is not installed here starts nothing and leaves a note saying so
// (FOLDER/missing) instead of failing: every test that needs it is skipped with that reason.
class InstalledServers : public ::testing::Environment
{
public:
    void SetUp() override
    {
        const char *fixtures = std::getenv("VANTREL_FIXTURE_DIR");
        if (!fixtures)
            return;
        std::vector<std::string> needed;
        if (std::getenv("VANTREL_TEST_POSTGRES"))
            needed.push_back("postgres");
        if (std::getenv("VANTREL_TEST_S3_ENV"))
            needed.insert(needed.end(), {"s3", "pair"});
        for (const std::string &name : needed) {
            const fs::path note = fs::path(fixtures) / name / "missing";
            if (!fs::exists(note))
                continue;
            // GoogleTest marks no case skipped when its environment skips them all; ctest
            // reads this line to show them as skipped rather than passed.
            std::printf("[  SKIPPED ] every case: %s", readFile(note).c_str());
            GTEST_SKIP() << readFile(note);
        }
    }
};

[[maybe_unused]] ::testing::Environment *const installedServers =
    ::testing::AddGlobalTestEnvironment(new InstalledServers);

} // namespace

std::vector<std::string> ServiceEndpoint::storeOptions() const
{
    std::vector<std::string> options;
    if (!database.empty())
        options.insert(options.end(), {"--database", database});
    if (!files.empty())
        options.insert(options.end(),
                       {"--files", files, "--s3-endpoint", environment("S3_ENDPOINT")});
    return options;
}

bool onSharedStores()
{
    const char *postgres = std::getenv("VANTREL_TEST_POSTGRES");
    const char *s3 = std::getenv("VANTREL_TEST_S3_ENV");
    if (!postgres || !*postgres || !s3 || !*s3)
        return false;
    loadS3Environment();
    return true;
}

ServiceEndpoint fixtureService()
{
    ServiceEndpoint service;
    service.url = environment("VANTREL_TEST_SERVICE_URL");
    service.port = std::stoi(service.url.substr(service.url.rfind(':') + 1));
    service.ca = environment("VANTREL_TEST_SERVICE_CA");
    service.data = environment("VANTREL_TEST_SERVICE_DATA");
    service.binary = environment("VANTREL_TEST_SERVICE_BIN");
    if (onSharedStores()) {
        loadS3Environment();
        service.database = environment("VANTREL_TEST_POSTGRES") + "/fixture";
        service.files = "s3://vantrel-tests/fixture";
    }
    return service;
}

OwnService::OwnService(std::vector<std::string> extraOptions, Stores stores)
{
    if (onSharedStores() && stores == Stores::asTheTestRuns) {
        loadS3Environment();
        std::string name = "own_" + uniqueSuffix();
        std::replace(name.begin(), name.end(), '-', '_');
        administer("CREATE DATABASE " + name);
        m_ownsDatabase = true;
        m_endpoint.database = environment("VANTREL_TEST_POSTGRES") + "/" + name;
        m_endpoint.files = "s3://vantrel-tests/" + name;
    }
    prepare(std::move(extraOptions));
}

OwnService::OwnService(const OwnService &sibling, std::vector<std::string> extraOptions)
{
    m_endpoint.database = sibling.m_endpoint.database;
    m_endpoint.files = sibling.m_endpoint.files;
    prepare(std::move(extraOptions));
}

OwnService::OwnService(const std::string &database, const std::string &files,
                       std::vector<std::string> extraOptions)
{
    if (!files.empty())
        loadS3Environment();
    m_endpoint.database = database;
    m_endpoint.files = files;
    prepare(std::move(extraOptions));
}

void OwnService::prepare(std::vector<std::string> extraOptions)
{
    m_options = std::move(extraOptions);
    const std::vector<std::string> stores = m_endpoint.storeOptions();
    m_options.insert(m_options.end(), stores.begin(), stores.end());
    char pattern[] = "/tmp/vantrel-service-test-XXXXXX";
    if (!::mkdtemp(pattern))
        throw std::runtime_error("cannot make a temporary folder");
    m_folder = pattern;
    m_endpoint.binary = environment("VANTREL_TEST_SERVICE_BIN");
    m_endpoint.data = (m_folder / "data").string();
    m_endpoint.ca = (m_folder / "cert.pem").string();
    if (run({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
             "-nodes", "-keyout", (m_folder / "key.pem").string(), "-out", m_endpoint.ca, "-days",
             "1", "-subj", "/CN=localhost", "-addext",
             "subjectAltName=DNS:localhost,IP:127.0.0.1"}) != 0)
        throw std::runtime_error("openssl could not make a certificate");
    start();
}

OwnService::~OwnService()
{
    m_process.reset();
    std::error_code error;
    fs::remove_all(m_folder, error);
    if (m_ownsDatabase) {
        try {
            administer("DROP DATABASE " +
                       m_endpoint.database.substr(m_endpoint.database.rfind('/') + 1) +
                       " WITH (FORCE)");
        } catch (const std::exception &) {
            // A later run of the fixture starts with a fresh server anyway.
        }
    }
}

void OwnService::start()
{
    m_process.reset();
    // The first start takes any free port; a restart asks for the same one.
    const std::string listen = "127.0.0.1:" + std::to_string(m_endpoint.port);
    std::vector<std::string> argv {
        m_endpoint.binary, "serve",
        "--data",          m_endpoint.data,
        "--listen",        listen,
        "--public-url",    m_endpoint.port ? m_endpoint.url : "https://127.0.0.1",
        "--tls-cert",      m_endpoint.ca,
        "--tls-key",       (m_folder / "key.pem").string()};
    argv.insert(argv.end(), m_options.begin(), m_options.end());
    if (m_endpoint.port == 0) {
        // The public URL must name the port, which is known only once bound: bind once to
        // learn a free port, then start for real on it.
        m_process = std::make_unique<ChildProcess>(argv, ChildProcess::Environment {},
                                                   (m_folder / "first.log").string());
        const auto line = m_process->readLine(std::chrono::seconds(30));
        if (!line || line->find("listening on https://127.0.0.1:") == std::string::npos)
            throw std::runtime_error("vantrel-service did not start: " +
                                     readFile(m_folder / "first.log"));
        const std::string rest = line->substr(line->find("127.0.0.1:") + 10);
        m_endpoint.port = std::stoi(rest.substr(0, rest.find(' ')));
        m_endpoint.url = "https://127.0.0.1:" + std::to_string(m_endpoint.port);
        m_process.reset();
        return start();
    }
    m_process = std::make_unique<ChildProcess>(argv, ChildProcess::Environment {},
                                               (m_folder / "service.log").string());
    const auto line = m_process->readLine(std::chrono::seconds(30));
    if (!line || line->find("listening on") == std::string::npos)
        throw std::runtime_error("vantrel-service did not start: " +
                                 readFile(m_folder / "service.log"));
}

pid_t OwnService::pid() const
{
    return m_process ? m_process->pid() : -1;
}

void OwnService::kill9()
{
    m_process->signal(SIGKILL);
    m_process->wait();
}

CommandResult runCommand(const ServiceEndpoint &service, const std::vector<std::string> &arguments,
                         const std::string &input)
{
    // The input goes through a file: ChildProcess gives its children no standard input.
    static std::atomic<int> counter {0};
    const fs::path inputFile = fs::temp_directory_path() /
        ("vantrel-service-input-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
    const fs::path errorFile = inputFile.string() + ".err";
    writeFile(inputFile, input);
    std::vector<std::string> argv {"sh",
                                   "-c",
                                   "f=$1; e=$2; shift 2; exec \"$@\" <\"$f\" 2>\"$e\"",
                                   "sh",
                                   inputFile.string(),
                                   errorFile.string(),
                                   service.binary};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    argv.insert(argv.end(), {"--data", service.data});
    const std::vector<std::string> stores = service.storeOptions();
    argv.insert(argv.end(), stores.begin(), stores.end());
    CommandResult result;
    result.status = run(argv, &result.output);
    result.errors = readFile(errorFile);
    fs::remove(inputFile);
    fs::remove(errorFile);
    return result;
}

std::string addUser(const ServiceEndpoint &service, const std::string &name,
                    const std::string &password)
{
    const std::string email = name + "-" + uniqueSuffix() + "@example.org";
    const CommandResult result =
        runCommand(service, {"user", "add", email, "--name", name}, password + "\n");
    if (result.status != 0)
        throw std::runtime_error("user add failed: " + result.errors);
    return email;
}

std::string issueToken(const ServiceEndpoint &service, const std::string &email)
{
    const CommandResult result = runCommand(service, {"token", "issue", email});
    if (result.status != 0 || result.output.size() < 10)
        throw std::runtime_error("token issue failed: " + result.errors);
    return result.output.substr(0, result.output.find('\n'));
}

std::unique_ptr<httplib::SSLClient> client(const ServiceEndpoint &service)
{
    // A server killed mid-request must fail the request, not end the test with SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);
    auto result = std::make_unique<httplib::SSLClient>("127.0.0.1", service.port);
    result->set_ca_cert_path(service.ca.c_str());
    result->enable_server_certificate_verification(true);
    result->set_read_timeout(60, 0);
    result->set_write_timeout(60, 0);
    return result;
}

httplib::Headers bearer(const std::string &token)
{
    return {{"Authorization", "Bearer " + token}};
}

int curl(const ServiceEndpoint &service, const std::vector<std::string> &arguments,
         const fs::path &output)
{
    std::vector<std::string> argv {"curl",          "-s", "--cacert",      service.ca, "-o",
                                   output.string(), "-w", "%{http_code}\n"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::string status;
    if (run(argv, &status) != 0)
        return -1;
    return std::atoi(status.c_str());
}

fs::path makeClip(const fs::path &folder, const std::string &name, double seconds,
                  const std::string &size)
{
    const fs::path path = folder / name;
    if (run({"ffmpeg",     "-nostdin", "-v",
             "error",      "-y",       "-f",
             "lavfi",      "-i",       "testsrc=size=" + size + ":rate=30",
             "-f",         "lavfi",    "-i",
             "sine=f=440", "-t",       std::to_string(seconds),
             "-c:v",       "libx264",  "-preset",
             "ultrafast",  "-pix_fmt", "yuv420p",
             "-c:a",       "aac",      "-shortest",
             path.string()}) != 0)
        throw std::runtime_error("ffmpeg could not make a test clip");
    return path;
}

int countStored(const ServiceEndpoint &service, const std::string &folder)
{
    if (!service.sharedStores() || folder == "tmp")
        return countFiles(fs::path(service.data) / folder);
    const std::string place = service.files.substr(5);
    const std::string bucket = place.substr(0, place.find('/'));
    const std::string prefix = place.substr(place.find('/') + 1) + "/" + folder + "/";
    std::string listing;
    if (s3curl({environment("S3_ENDPOINT") + "/" + bucket +
                "?list-type=2&prefix=" + std::regex_replace(prefix, std::regex("/"), "%2F")},
               &listing) != 200)
        throw std::runtime_error("cannot list " + prefix + ": " + listing);
    int count = 0;
    for (size_t at = listing.find("<Key>"); at != std::string::npos;
         at = listing.find("<Key>", at + 1))
        ++count;
    return count;
}

bool storedExists(const ServiceEndpoint &service, const std::string &folder,
                  const std::string &name)
{
    if (!service.sharedStores())
        return fs::exists(fs::path(service.data) / folder / name);
    return s3curl({"-I", objectUrl(service, folder, name)}) == 200;
}

void removeStored(const ServiceEndpoint &service, const std::string &folder,
                  const std::string &name)
{
    if (!service.sharedStores()) {
        fs::remove(fs::path(service.data) / folder / name);
        return;
    }
    s3curl({"-X", "DELETE", objectUrl(service, folder, name)});
}

void putStored(const ServiceEndpoint &service, const std::string &folder, const std::string &name,
               const std::string &content)
{
    if (!service.sharedStores())
        return writeFile(fs::path(service.data) / folder / name, content);
    const fs::path file = fs::temp_directory_path() / ("vantrel-put-" + uniqueSuffix());
    writeFile(file, content);
    const int status = s3curl({"-T", file.string(), objectUrl(service, folder, name)});
    fs::remove(file);
    if (status != 200)
        throw std::runtime_error("cannot store " + name + " in the bucket");
}

bool waitForPoster(const ServiceEndpoint &service, const std::string &id)
{
    auto http = client(service);
    return waitFor([&] {
        const auto poster = http->Get("/files/" + id + ".jpg");
        return poster && poster->status == 200;
    });
}

std::string makeDatabase()
{
    std::string name = "made_" + uniqueSuffix();
    std::replace(name.begin(), name.end(), '-', '_');
    administer("CREATE DATABASE " + name);
    return environment("VANTREL_TEST_POSTGRES") + "/" + name;
}

std::string databaseValue(const ServiceEndpoint &service, const std::string &query)
{
    PGconn *connection = PQconnectdb(service.database.c_str());
    PGresult *result = PQexec(connection, query.c_str());
    std::string value;
    if (PQresultStatus(result) == PGRES_TUPLES_OK && PQntuples(result) > 0)
        value = PQgetvalue(result, 0, 0);
    const std::string message = PQerrorMessage(connection);
    PQclear(result);
    PQfinish(connection);
    if (!message.empty())
        throw std::runtime_error(query + ": " + message);
    return value;
}

std::string readFile(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const fs::path &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string md5(const std::string &bytes)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_md5(), nullptr);
    std::string hex;
    char pair[3];
    for (unsigned int i = 0; i < size; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", digest[i]);
        hex += pair;
    }
    return hex;
}

int countFiles(const fs::path &folder)
{
    std::error_code error;
    int count = 0;
    for (auto it = fs::directory_iterator(folder, error); !error && it != fs::directory_iterator();
         it.increment(error))
        ++count;
    return count;
}

TempFolder::TempFolder()
{
    char pattern[] = "/tmp/vantrel-service-files-XXXXXX";
    if (!::mkdtemp(pattern))
        throw std::runtime_error("cannot make a temporary folder");
    m_path = pattern;
}

TempFolder::~TempFolder()
{
    std::error_code error;
    fs::remove_all(m_path, error);
}

bool waitFor(const std::function<bool()> &done, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return done();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}
