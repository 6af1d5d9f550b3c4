#include "soak_people.h"

#include <algorithm>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "soak_log.h"
#include "soak_state.h"

constexpr int UPLOAD_REST_MS = 4000; // of a device in the middle of an upload
constexpr int PAGE_REQUESTS = 12;    // more than the ten connections that the agent has for the web tunnel

// A transfer that a fault has cut short may end early, but what has arrived is right. True when all has arrived.
static bool judge_transfer(const std::string &what, const std::string &whole, const std::string &got, int epoch)
{
    const auto differs = std::mismatch(got.begin(), got.end(), whole.begin(), whole.end()).first;
    if (differs != got.end()) {
        soak_problem(what + ": wrong from byte " + std::to_string(differs - got.begin()) + " on");
    } else if (got != whole && soak_is_calm_since(epoch)) {
        soak_problem(what + ": " + std::to_string(got.size()) + " of " + std::to_string(whole.size()) + " bytes");
    }
    soak_count((got == whole ? "whole " : "partial ") + what);
    return got == whole;
}

static int web_port()
{
    return g_soak.stage->web->client_port();
}

void people_download(int size, unsigned seed)
{
    const int epoch = g_soak.epoch;
    const std::string request = std::to_string(size) + " " + std::to_string(seed) + "\n";
    judge_transfer("download", noise((size_t)size, seed), answer_of(web_port(), request), epoch);
}

// The device takes the first half, and rests for rest_ms before the second.
static void upload(int size, int rest_ms)
{
    const int epoch = g_soak.epoch;
    const std::string request = "+" + std::to_string(size) + " " + std::to_string(size / 2 + 1) + " " +
                                std::to_string(rest_ms) + "\n" + noise((size_t)size, 1);
    const std::string answer = answer_of(web_port(), request);
    // An upload that was cut short is "spoilt" to the device's service too, and that answer may get through.
    judge_transfer("upload", "ok", answer == "spoilt" && !soak_is_calm_since(epoch) ? "" : answer, epoch);
}

// A page whose uploads stand still, then a reload: as many downloads, while the first requests are still open.
static void page_reload(Random *random)
{
    const int epoch = g_soak.epoch;
    std::vector<int> before, after;
    std::vector<std::string> whole;
    for (int i = 0; i < PAGE_REQUESTS; i++) {
        before.push_back(client_connect(web_port()));
        fd_send(before.back(), "+1000\n");
    }
    soak_pause(100); // they have all the agent's connections then
    for (int i = 0; i < PAGE_REQUESTS; i++) {
        const int size = soak_pick(random, 1, 30000);
        after.push_back(client_connect(web_port()));
        fd_send(after.back(), std::to_string(size) + " " + std::to_string(i) + "\n");
        whole.push_back(noise((size_t)size, (unsigned)i));
    }
    std::for_each(before.begin(), before.end(), close);
    for (size_t i = 0; i < after.size(); i++) {
        judge_transfer("reload", whole[i], fd_read_all(after[i]), epoch);
        close(after[i]);
    }
}

static void web_burst(Random *random)
{
    if (soak_pick(random, 0, 4) == 0) {
        page_reload(random);
        return;
    }
    std::vector<std::thread> browsers;
    for (int i = soak_pick(random, 1, 6); i > 0; i--) {
        const int size = soak_pick(random, 1, 300000);
        const unsigned seed = (*random)();
        i % 3 == 1 ? browsers.emplace_back(upload, size, seed % 4 == 0 ? UPLOAD_REST_MS : 0)
                   : browsers.emplace_back(people_download, size, seed);
    }
    for (std::thread &browser : browsers)
        browser.join();
}

static void telnet_burst(Random *random)
{
    const int epoch = g_soak.epoch;
    const int fd = client_connect(g_soak.stage->telnet->client_port());
    bool whole = true;
    for (int i = 0; i < 20 && whole; i++) {
        const int most = i == 10 ? 30000 : 3000; // a paste among them
        const std::string keys = noise((size_t)soak_pick(random, 1, most), (*random)());
        whole = judge_transfer("echo", keys, fd_send(fd, keys) ? fd_read(fd, keys.size()) : "", epoch);
    }
    close(fd);
    if (!whole)
        g_soak.stage->telnet->close_agent(); // the next client cannot use a session in the middle of an answer
}

bool people_open_telnet()
{
    const uint32_t before = g_soak.stage->telnet->stats().inits;
    return telnet_command(g_soak.stage, "start") &&
           g_soak.stage->telnet->wait(
               k_wait_ms, [&](const TelnetTunnelStats &stats) { return stats.authenticated && stats.inits > before; });
}

struct TunnelUse {
    const char *name;
    bool (*open)();
    bool (*is_open)();
    void (*burst)(Random *random);
    bool (*close)();
};

// A fault may end the tunnel at any time.
static void tunnel_run(const TunnelUse &use, unsigned seed)
{
    Random random(seed);
    while (g_soak.traffic) {
        int epoch = g_soak.epoch;
        if (!use.open() && soak_is_calm_since(epoch))
            soak_problem(std::string(use.name) + " tunnel does not open");
        for (int i = soak_pick(&random, 2, 12); i > 0 && g_soak.traffic && use.is_open(); i--) {
            use.burst(&random);
            soak_pause(soak_pick(&random, 0, 1000));
        }
        epoch = g_soak.epoch;
        if (!use.close() && soak_is_calm_since(epoch))
            soak_problem(std::string(use.name) + " tunnel does not close");
        soak_pause(soak_pick(&random, 0, 3000));
    }
}

void people_run_web(unsigned seed)
{
    tunnel_run({"web", [] { return web_open(g_soak.stage); }, [] { return g_soak.stage->web->stats().authenticated; },
                web_burst, [] { return web_close(g_soak.stage); }},
               seed);
}

void people_run_telnet(unsigned seed)
{
    tunnel_run({"telnet", people_open_telnet, [] { return g_soak.stage->telnet->stats().authenticated; }, telnet_burst,
                [] { return telnet_close(g_soak.stage); }},
               seed);
}
