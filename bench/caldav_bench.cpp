// The CalDAV server against Radicale and xandikos: the same libcurl client (keep-alive, one handle per
// server) and the same 10 000-event calendar, in one run. Reports each operation per server, the ratio
// of the faster of the other two to ours (goal ≥ 10), sync-collection with a current token (goal
// ≤ 1 ms), and 1 000 idle TLS connections held: new clients' latency (goal ≤ 100 ms) and the server's
// memory per connection (goal ≤ 64 KiB).
//     cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DNIMBREL_BUILD_BENCH=ON
//     cmake --build build-bench -j2 --target caldav_bench nimbrel-caldav-testhost
//     build-bench/bin/caldav_bench --benchmark_min_time=2
// Everything runs on 127.0.0.1; the servers' folders live in a temporary folder removed at the end.
#include "caldav_servers.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace caldavbench;

namespace {

constexpr int kEvents = 10000;
constexpr int kMultiget = 500;
constexpr int kGets = 200;
constexpr int kIdle = 1000;

std::map<std::string, std::map<std::string, double>> gSeconds; // operation → server → seconds per operation

size_t collect(char* data, size_t size, size_t n, void* out)
{
    static_cast<std::string*>(out)->append(data, size * n);
    return size * n;
}

// One keep-alive connection to one server.
class Client
{
public:
    explicit Client(const Server& server, const char* localAddress = nullptr)
        : m_server(server)
        , m_curl(curl_easy_init())
    {
        curl_easy_setopt(m_curl, CURLOPT_SSL_VERIFYPEER, 0L); // self-signed, pinned elsewhere
        curl_easy_setopt(m_curl, CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(m_curl, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(m_curl, CURLOPT_WRITEDATA, &m_body);
        curl_easy_setopt(m_curl, CURLOPT_TIMEOUT, 900L); // a cold Radicale takes minutes at first
        if (localAddress)
            curl_easy_setopt(m_curl, CURLOPT_INTERFACE, localAddress);
    }
    ~Client() { curl_easy_cleanup(m_curl); }

    const std::string& request(const char* method, const std::string& path, const std::string& body = {},
                               const char* depth = nullptr, long want = 207)
    {
        m_body.clear();
        const std::string url = m_server.base + path;
        curl_easy_setopt(m_curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(m_curl, CURLOPT_CUSTOMREQUEST, method);
        curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/xml; charset=utf-8");
        std::string depthHeader = depth ? std::string("Depth: ") + depth : std::string();
        if (depth)
            headers = curl_slist_append(headers, depthHeader.c_str());
        curl_easy_setopt(m_curl, CURLOPT_HTTPHEADER, headers);
        if (!body.empty()) {
            curl_easy_setopt(m_curl, CURLOPT_POSTFIELDS, body.c_str());
            curl_easy_setopt(m_curl, CURLOPT_POSTFIELDSIZE, long(body.size()));
        } else {
            curl_easy_setopt(m_curl, CURLOPT_POSTFIELDS, nullptr);
            curl_easy_setopt(m_curl, CURLOPT_HTTPGET, 1L);
            curl_easy_setopt(m_curl, CURLOPT_CUSTOMREQUEST, method);
        }
        const CURLcode rc = curl_easy_perform(m_curl);
        curl_slist_free_all(headers);
        long status = 0;
        curl_easy_getinfo(m_curl, CURLINFO_RESPONSE_CODE, &status);
        if (rc != CURLE_OK || status != want)
            throw std::runtime_error(m_server.name + " " + method + " " + path + ": " + curl_easy_strerror(rc) +
                                     " status " + std::to_string(status) + " " + m_body.substr(0, 300));
        return m_body;
    }

private:
    const Server& m_server;
    CURL* m_curl;
    std::string m_body;
};

size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++n;
    return n;
}

// Every getetag element appears as an opening and a closing tag.
void expectItems(const Server& s, const std::string& body, size_t want, const char* what)
{
    const size_t got = count(body, "getetag>") / 2;
    if (got < want)
        throw std::runtime_error(s.name + " " + what + ": " + std::to_string(got) + " items, wanted " + std::to_string(want));
}

const std::string kPropfind = R"(<?xml version="1.0"?><d:propfind xmlns:d="DAV:"><d:prop><d:getetag/><d:getcontenttype/></d:prop></d:propfind>)";

std::string multigetBody(const Server& s)
{
    std::string body = R"(<?xml version="1.0"?><c:calendar-multiget xmlns:d="DAV:" xmlns:c="urn:ietf:params:xml:ns:caldav"><d:prop><d:getetag/><c:calendar-data/></d:prop>)";
    for (int i = 0; i < kMultiget; ++i)
        body += "<d:href>" + s.collection + "ev-" + std::to_string(i * (kEvents / kMultiget)) + ".ics</d:href>";
    return body + "</c:calendar-multiget>";
}

std::string syncBody(const std::string& token)
{
    return R"(<?xml version="1.0"?><d:sync-collection xmlns:d="DAV:"><d:sync-token>)" + token +
           R"(</d:sync-token><d:sync-level>1</d:sync-level><d:prop><d:getetag/></d:prop></d:sync-collection>)";
}

std::string syncToken(const std::string& body)
{
    const size_t close = body.rfind("sync-token>");
    const size_t open = body.rfind('>', body.rfind('<', close) - 1);
    return body.substr(open + 1, body.rfind('<', close) - open - 1);
}

template <class F>
void timed(benchmark::State& state, const std::string& op, const Server& s, F body)
{
    double total = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        body();
        total += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    gSeconds[op][s.name] = total / double(state.iterations());
}

void registerFor(const Server& s)
{
    auto client = std::make_shared<Client>(s);
    benchmark::RegisterBenchmark(("PropfindDepth1/" + s.name).c_str(), [=](benchmark::State& st) {
        timed(st, "PROPFIND Depth 1", s, [&] { expectItems(s, client->request("PROPFIND", s.collection, kPropfind, "1"), kEvents, "propfind"); });
    })->Unit(benchmark::kMillisecond);
    const std::string multiget = multigetBody(s);
    benchmark::RegisterBenchmark(("Multiget500/" + s.name).c_str(), [=](benchmark::State& st) {
        timed(st, "calendar-multiget 500", s, [&] { expectItems(s, client->request("REPORT", s.collection, multiget, "1"), kMultiget, "multiget"); });
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("SyncFromEmpty/" + s.name).c_str(), [=](benchmark::State& st) {
        timed(st, "sync-collection, empty token", s, [&] { expectItems(s, client->request("REPORT", s.collection, syncBody(""), "0"), kEvents, "sync"); });
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("Get200/" + s.name).c_str(), [=](benchmark::State& st) {
        timed(st, "200 GETs", s, [&] {
            for (int i = 0; i < kGets; ++i)
                client->request("GET", s.collection + "ev-" + std::to_string(i * 37 % kEvents) + ".ics", {}, nullptr, 200);
        });
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("SyncCurrentToken/" + s.name).c_str(), [=](benchmark::State& st) {
        const std::string current = syncBody(syncToken(client->request("REPORT", s.collection, syncBody(""), "0")));
        timed(st, "sync-collection, current token", s, [&] { client->request("REPORT", s.collection, current, "0"); });
    })->Unit(benchmark::kMicrosecond);
}

// Opens a TLS connection from `local` to the server and completes the handshake; returns the socket.
int openIdle(SSL_CTX* ctx, int port, const char* local, std::vector<SSL*>& sessions)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in from{};
    from.sin_family = AF_INET;
    inet_pton(AF_INET, local, &from.sin_addr);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(port));
    inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0
        || connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0)
        throw std::runtime_error("idle connection failed");
    SSL* ssl = SSL_new(ctx);
    SSL_set_fd(ssl, fd);
    if (SSL_connect(ssl) != 1)
        throw std::runtime_error("idle TLS handshake failed");
    sessions.push_back(ssl);
    return fd;
}

void idleConnections(const Server& s)
{
    const int port = std::stoi(s.base.substr(s.base.rfind(':') + 1));
    SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    std::vector<SSL*> sessions;
    std::vector<int> fds;
    { Client warm(s); warm.request("PROPFIND", s.collection, kPropfind, "0"); }
    const long before = residentKiB(s.pid);
    // 20 loopback source addresses, 50 connections each: under the per-address limit of 64.
    for (int i = 0; i < kIdle; ++i) {
        const std::string local = "127.0.0." + std::to_string(10 + i / 50);
        fds.push_back(openIdle(ctx, port, local.c_str(), sessions));
    }
    const long after = residentKiB(s.pid);
    std::vector<double> latencies;
    for (int i = 0; i < 20; ++i) {
        const auto start = std::chrono::steady_clock::now();
        Client fresh(s, "127.0.0.9");
        fresh.request("PROPFIND", s.collection, kPropfind, "0");
        latencies.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(latencies.begin(), latencies.end());
    std::printf("\n%d idle TLS connections held by %s: a new client (connect, TLS, PROPFIND) median %.1f ms, "
                "max %.1f ms (goal <= 100 ms); server memory %ld KiB -> %ld KiB, %.1f KiB per connection "
                "(goal <= 64 KiB)\n",
                kIdle, s.name.c_str(), latencies[latencies.size() / 2], latencies.back(), before, after,
                double(after - before) / kIdle);
    for (SSL* ssl : sessions)
        SSL_free(ssl);
    for (int fd : fds)
        close(fd);
    SSL_CTX_free(ctx);
}

void printRatios()
{
    std::printf("\n%-32s %12s %12s %12s %10s\n", "operation", "nimbrel", "radicale", "xandikos", "ratio");
    for (const auto& [op, servers] : gSeconds) {
        auto get = [&](const char* n) { return servers.count(n) ? servers.at(n) * 1000 : -1.0; };
        const double ours = get("nimbrel");
        const double other = std::min(get("radicale") < 0 ? 1e18 : get("radicale"), get("xandikos") < 0 ? 1e18 : get("xandikos"));
        std::printf("%-32s %9.3f ms %9.3f ms %9.3f ms %9.1fx\n", op.c_str(), ours, get("radicale"), get("xandikos"),
                    other / ours);
    }
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    curl_global_init(CURL_GLOBAL_ALL);

    char pattern[] = "/tmp/caldav-bench-XXXXXX";
    const std::string work = mkdtemp(pattern);
    const std::string self = argv[0];
    const std::string testHost = self.substr(0, self.rfind('/') + 1) + "nimbrel-caldav-testhost";
    std::vector<Server> servers;
    int status = 0;
    try {
        const auto files = writeEvents(work + "/events", kEvents);
        // CALDAV_BENCH_ONLY=nimbrel measures ours alone (while tuning); the ratios need all three.
        const char* only = std::getenv("CALDAV_BENCH_ONLY");
        auto wanted = [&](const char* name) { return !only || std::string(only) == name; };
        servers.push_back(startNimbrel(work, testHost, files));
        if (wanted("radicale"))
            servers.push_back(startRadicale(work, files));
        if (wanted("xandikos"))
            servers.push_back(startXandikos(work, files));
        for (const Server& s : servers) {
            Client warm(s); // first requests build the servers' caches; not measured
            expectItems(s, warm.request("PROPFIND", s.collection, kPropfind, "1"), kEvents, "warm-up");
            warm.request("REPORT", s.collection, syncBody(""), "0");
            registerFor(s);
        }
        benchmark::RunSpecifiedBenchmarks();
        printRatios();
        idleConnections(servers.front());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "caldav_bench: %s (logs in %s)\n", e.what(), work.c_str());
        status = 1;
    }
    for (Server& s : servers)
        stop(s);
    if (status == 0)
        std::system(("rm -rf '" + work + "'").c_str());
    benchmark::Shutdown();
    return status;
}
