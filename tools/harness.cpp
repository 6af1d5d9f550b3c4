#include "harness.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <condition_variable>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

struct AgentConsole {
    std::thread reader;
    std::mutex lock; // guards what follows
    std::condition_variable changed;
    std::string output; // over all starts
    bool ended = true;  // the agent's end of the pipe is closed
};

// Removes colour sequences (escape to "m"). *inside: whether a sequence is incomplete, from one read to the next.
static std::string without_colours(const char *bytes, size_t length, bool *inside)
{
    std::string text;
    for (size_t i = 0; i < length; i++) {
        if (bytes[i] == '\033')
            *inside = true;
        else if (!*inside)
            text += bytes[i];
        else if (bytes[i] == 'm')
            *inside = false;
    }
    return text;
}

static void read_console(AgentConsole *console, int fd)
{
    char buffer[65536];
    bool inside = false;
    for (ssize_t length; (length = read(fd, buffer, sizeof(buffer))) > 0 || (length < 0 && errno == EINTR);) {
        const std::string text = without_colours(buffer, length > 0 ? (size_t)length : 0, &inside);
        std::lock_guard<std::mutex> guard(console->lock);
        console->output += text;
        console->changed.notify_all();
    }
    close(fd);
    std::lock_guard<std::mutex> guard(console->lock);
    console->ended = true;
    console->changed.notify_all();
}

// The binary, after the words of PLUGIN_RUNNER, which in a cross build start an emulator.
static std::vector<std::string> command_words(const std::string &binary)
{
    std::istringstream stream(PLUGIN_RUNNER);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    words.push_back(binary.empty() ? PLUGIN_BINARY : binary);
    return words;
}

static void run_agent(const AgentProcess &agent, std::vector<char *> &arguments, int console)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL); // as a launcher leaves it
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (agent.descriptors_max > 0) {
        const rlimit limit = {(rlim_t)agent.descriptors_max, (rlim_t)agent.descriptors_max};
        setrlimit(RLIMIT_NOFILE, &limit);
        close(STDIN_FILENO); // makes room for the dynamic loader; the agent opens /dev/null in its place
    }
    if (chdir(agent.dir.c_str()) == 0 && dup2(console, STDOUT_FILENO) >= 0 && dup2(console, STDERR_FILENO) >= 0)
        execvp(arguments[0], arguments.data());
    _exit(127);
}

bool agent_start(AgentProcess *agent)
{
    int ends[2];
    if (agent->pid > 0 || pipe2(ends, O_CLOEXEC) != 0)
        return false;
    std::vector<std::string> words = command_words(agent->binary);
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(&word[0]);
    arguments.push_back(nullptr);
    agent->status = -1;
    agent->pid = fork();
    if (agent->pid == 0)
        run_agent(*agent, arguments, ends[1]);
    close(ends[1]);
    if (!agent->console)
        agent->console = new AgentConsole;
    agent->seen = agent->console->output.size();
    agent->console->ended = false;
    agent->console->reader = std::thread(read_console, agent->console, ends[0]);
    return agent->pid > 0;
}

std::string agent_output(const AgentProcess &agent)
{
    if (!agent.console)
        return "";
    std::lock_guard<std::mutex> guard(agent.console->lock);
    return agent.console->output;
}

bool text_has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

int text_count(const std::string &text, const std::string &part)
{
    int count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        count++;
    return count;
}

bool agent_has_log(const AgentProcess &agent, const std::string &text)
{
    return text_has(agent_output(agent), text);
}

bool agent_wait_log(AgentProcess *agent, const std::string &text, int timeout_ms)
{
    AgentConsole *console = agent->console;
    size_t at = std::string::npos;
    std::unique_lock<std::mutex> guard(console->lock);
    console->changed.wait_for(guard, std::chrono::milliseconds(timeout_ms), [&] {
        at = console->output.find(text, agent->seen);
        return at != std::string::npos || console->ended;
    });
    if (at == std::string::npos)
        return false;
    agent->seen = at + text.size();
    return true;
}

// When the console has ended, the process ends within moments.
int agent_wait_exit(AgentProcess *agent, int timeout_ms)
{
    if (agent->pid <= 0)
        return agent->status;
    const long long until = monotonic_ms() + timeout_ms;
    {
        std::unique_lock<std::mutex> guard(agent->console->lock);
        agent->console->changed.wait_for(guard, std::chrono::milliseconds(timeout_ms),
                                         [&] { return agent->console->ended; });
    }
    int status = 0;
    while (waitpid(agent->pid, &status, WNOHANG) != agent->pid) {
        if (monotonic_ms() > until)
            return -1;
        poll(nullptr, 0, 1);
    }
    agent->pid = -1;
    agent->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    agent->console->reader.join();
    return agent->status;
}

int agent_stop(AgentProcess *agent, int signal_number, int timeout_ms)
{
    int status = agent->status;
    for (int left_ms = timeout_ms; agent->pid > 0 && left_ms > 0; left_ms -= std::min(left_ms, k_signal_again_ms)) {
        kill(agent->pid, signal_number);
        status = agent_wait_exit(agent, std::min(left_ms, k_signal_again_ms));
    }
    return status;
}

void config_set(ConfigRows *rows, const std::string &key, const std::string &value)
{
    device_cfg_set(rows, key, value); // rows of the same kind
}

// Groups the rows by section, whatever their order in the table.
static std::string config_text(const ConfigRows &rows)
{
    std::map<std::string, std::string> sections;
    for (const auto &row : rows) {
        const size_t colon = row.first.find(':');
        sections[row.first.substr(0, colon)] += row.first.substr(colon + 1) + " = " + row.second + "\n";
    }
    std::string text;
    for (const auto &section : sections)
        text += "[" + section.first + "]\n" + section.second;
    return text;
}

void stage_prepare(Stage *stage, bool https)
{
    char dir[] = "/tmp/agent-e2e-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    stage->agent.dir = dir;
    stage->nm_options.https = https;
    stage->nm_options.serial = "SN00000001";
    stage->nm = nm_sim_start(stage->nm_options);
    stage->device = device_sim_start(DeviceOptions());
    ASSERT_TRUE(stage->nm && stage->device);
    const DeviceCfg wanted_cfg = std::exchange(
        stage->cfg, device_cfg_default(dir, https, nm_sim_port(stage->nm), device_sim_port(stage->device)));
    const ConfigRows wanted = std::exchange(stage->config, {{"plugin_config:log_std", "2"},
                                                            {"plugin_config:log_level", "7"},
                                                            {"device_info:init_cfg", stage->agent.dir + "/init"},
                                                            {"plugin_config:plugin_eth", "lo"}});
    for (const auto &row : wanted_cfg)
        device_cfg_set(&stage->cfg, row.first, row.second);
    for (const auto &row : wanted)
        config_set(&stage->config, row.first, row.second);
}

void stage_write(const Stage &stage)
{
    ASSERT_TRUE(device_write_all(stage.agent.dir, stage.cfg));
    ASSERT_TRUE(device_write_file(stage.agent.dir + "/config.ini", config_text(stage.config)));
}

bool stage_run(Stage *stage)
{
    stage_write(*stage);
    return agent_start(&stage->agent);
}

bool stage_wait_online(Stage *stage, int timeout_ms)
{
    return agent_wait_log(&stage->agent, "Send 'online-status-notify' to device", timeout_ms) &&
           device_sim_wait_for(stage->device, "online-status-notify", 1, timeout_ms) &&
           device_sim_frame(stage->device, "online-status-notify", -1).text.find("\"online\"") != std::string::npos;
}

bool stage_online(Stage *stage, bool https)
{
    stage_prepare(stage, https);
    return stage_run(stage) && stage_wait_online(stage);
}

bool stage_command(Stage *stage, const std::string &command)
{
    const int before = nm_sim_count(stage->nm, "handshake");
    nm_sim_queue(stage->nm, command);
    return nm_sim_wait_for(stage->nm, "handshake", before + 1, k_wait_ms);
}

bool stage_fast_heartbeat(Stage *stage)
{
    return stage_command(stage, nm_command_trigger(1)) &&
           agent_wait_log(&stage->agent, "Changing UDP detection interval from: 6 to 1.");
}

bool stage_ping(Stage *stage, const std::string &ping, int timeout_ms)
{
    const int before = device_sim_count(stage->device, "pong");
    return device_sim_send(stage->device, ping) && device_sim_wait_for(stage->device, "pong", before + 1, timeout_ms);
}

std::string stage_result(Stage *stage, const std::string &result)
{
    const int before = device_sim_count(stage->device, "cfg-ack");
    if (!device_sim_send(stage->device, result) ||
        !device_sim_wait_for(stage->device, "cfg-ack", before + 1, k_wait_ms))
        return "";
    const std::string ack = device_sim_frame(stage->device, "cfg-ack", -1).text;
    for (const char *says : {"true", "false"}) {
        if (text_has(ack, std::string("\"sessionid\":\"s\",\t\"type\":\"cfg-ack\",\t\"result\":") + says))
            return says;
    }
    return ack;
}

void stage_nm_silent(Stage *stage)
{
    nm_sim_set_fault(stage->nm, "accept", {NM_FAULT_SILENCE, 0, -1, ""});
    nm_sim_drop_connections(stage->nm);
}

std::string stage_wrong(const Stage &stage)
{
    return nm_sim_wrong(stage.nm) + device_sim_wrong(stage.device);
}

std::string stage_end(Stage *stage)
{
    const int status = agent_stop(&stage->agent, SIGTERM);
    return (status == SIGTERM ? "" : "exit status " + std::to_string(status) + "\n") + stage_wrong(*stage);
}

static void remove_dir(const std::string &path)
{
    DIR *dir = opendir(path.c_str());
    for (dirent *entry; dir && (entry = readdir(dir));) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        if (unlink((path + "/" + name).c_str()) != 0)
            remove_dir(path + "/" + name);
    }
    if (dir)
        closedir(dir);
    rmdir(path.c_str());
}

// Sanitizers report on the agent's console; a report fails any test.
static void sanitizer_check(const std::string &output)
{
    for (const char *mark : {"AddressSanitizer", "ThreadSanitizer", "runtime error: "}) {
        const size_t at = output.find(mark);
        if (at != std::string::npos)
            ADD_FAILURE() << output.substr(at, 4000);
    }
}

Stage::~Stage()
{
    agent_stop(&agent, SIGKILL);
    sanitizer_check(agent_output(agent));
    if (testing::Test::HasFailure() && agent.console) {
        const std::string output = agent_output(agent);
        fprintf(stderr, "--- the end of the agent's console:\n%s\n--- found wrong:\n%s---\n",
                output.substr(output.size() - std::min<size_t>(output.size(), 12000)).c_str(),
                nm && device ? stage_wrong(*this).c_str() : "");
    }
    delete agent.console;
    device_sim_stop(device);
    nm_sim_stop(nm);
    if (!agent.dir.empty())
        remove_dir(agent.dir);
}

static int value_in(const std::string &path, const std::string &key)
{
    const std::string text = file_text(path);
    const size_t at = text.find("\n" + key + ":");
    return at == std::string::npos ? -1 : atoi(text.c_str() + at + key.size() + 2);
}

static int status_value(int pid, const std::string &key)
{
    return value_in("/proc/" + std::to_string(pid) + "/status", key);
}

int proc_threads(int pid)
{
    return status_value(pid, "Threads");
}

int proc_rss_kib(int pid)
{
    return status_value(pid, "VmRSS");
}

int proc_private_kib(int pid)
{
    return value_in("/proc/" + std::to_string(pid) + "/smaps_rollup", "Private_Dirty");
}

bool proc_rss_counts()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#else
    return *PLUGIN_RUNNER == '\0';
#endif
}

int proc_descriptors(int pid)
{
    DIR *dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    int count = -2; // "." and ".."
    while (dir && readdir(dir))
        count++;
    if (dir)
        closedir(dir);
    return count;
}

void side_by_side(size_t count, const std::function<void(size_t)> &what)
{
    std::vector<std::thread> threads;
    for (size_t i = 0; i < count; i++)
        threads.emplace_back(what, i);
    for (std::thread &thread : threads)
        thread.join();
}

bool eventually(const std::function<bool()> &holds, int wait_ms)
{
    const long long end_ms = monotonic_ms() + wait_ms;
    while (!holds()) {
        if (monotonic_ms() > end_ms) {
            return false;
        }
        poll(nullptr, 0, 20);
    }
    return true;
}

std::pair<int, int> proc_usage_at_rest(int pid)
{
    std::pair<int, int> least = {proc_descriptors(pid), proc_threads(pid)};
    for (int i = 0; i < 50; i++) {
        poll(nullptr, 0, 20);
        least = {std::min(least.first, proc_descriptors(pid)), std::min(least.second, proc_threads(pid))};
    }
    return least;
}

bool proc_usage_returns(int pid, const std::pair<int, int> &idle)
{
    return eventually([&] { return proc_descriptors(pid) <= idle.first && proc_threads(pid) <= idle.second; });
}

int proc_cpu_ms(int pid)
{
    const std::string text = file_text("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(text.substr(std::min(text.size(), text.rfind(')') + 2)));
    std::string skipped;
    long long user = 0, system = 0;
    for (int i = 3; i < 14; i++) // fields 3 to 13 are before the two times
        fields >> skipped;
    fields >> user >> system;
    return (int)((user + system) * 1000 / sysconf(_SC_CLK_TCK));
}

int black_hole_port()
{
    sockaddr_in addr = {};
    socklen_t length = sizeof(addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, (sockaddr *)&addr, length) != 0 || listen(listener, 0) != 0 ||
        getsockname(listener, (sockaddr *)&addr, &length) != 0)
        return -1;
    for (int i = 0; i < 8; i++) { // fill the queue of connections to accept; then the kernel drops new ones
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        (void)connect(fd, (sockaddr *)&addr, length);
    }
    return ntohs(addr.sin_port);
}
