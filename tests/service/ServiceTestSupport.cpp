#include "service/ServiceTestSupport.h"

#include "support/ChildProcess.h"

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <random>
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

} // namespace

ServiceEndpoint fixtureService()
{
    ServiceEndpoint service;
    service.url = environment("VANTREL_TEST_SERVICE_URL");
    service.port = std::stoi(service.url.substr(service.url.rfind(':') + 1));
    service.ca = environment("VANTREL_TEST_SERVICE_CA");
    service.data = environment("VANTREL_TEST_SERVICE_DATA");
    service.binary = environment("VANTREL_TEST_SERVICE_BIN");
    return service;
}

OwnService::OwnService(std::vector<std::string> extraOptions)
    : m_options(std::move(extraOptions))
{
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
