#include "console.h"

#include <fstream>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sstream>
#include <stdio.h>
#include <stdlib.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "sim_loop.h"

static int s_signals = -1; // signalfd of SIGINT and SIGTERM
static bool s_quit = false;

int ConsoleLine::number(size_t index, int missing) const
{
    return index < words.size() ? atoi(words[index].c_str()) : missing;
}

std::string ConsoleLine::word(size_t index, const std::string &missing) const
{
    return index < words.size() ? words[index] : missing;
}

std::function<std::string(const ConsoleLine &line)> console_plain(std::function<void(const ConsoleLine &line)> fn)
{
    return [fn](const ConsoleLine &line) {
        fn(line);
        return std::string();
    };
}

void console_init()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    s_signals = signalfd(-1, &set, SFD_CLOEXEC);
}

void console_print(const std::string &line)
{
    static std::mutex s_lock;
    std::lock_guard<std::mutex> guard(s_lock);
    printf("%s %s\n", sim_clock().c_str(), line.c_str());
    fflush(stdout);
}

static void print_help(const std::vector<ConsoleCommand> &commands)
{
    for (const ConsoleCommand &command : commands)
        printf("  %-10s %-34s %s\n", command.word, command.arguments, command.help);
    printf("  %-10s %-34s %s\n  %-10s %-34s %s\n", "sleep", "MS", "wait", "quit", "", "end the program");
    fflush(stdout);
}

static std::string sleep_ms(int ms)
{
    pollfd stop = {s_signals, POLLIN, 0};
    s_quit = poll(&stop, 1, ms) > 0;
    return "";
}

std::string console_run_line(const std::vector<ConsoleCommand> &commands, const std::string &text)
{
    std::istringstream stream(text);
    std::string first;
    ConsoleLine line;
    stream >> first;
    std::getline(stream >> std::ws, line.rest);
    std::istringstream rest(line.rest);
    for (std::string word; rest >> word;)
        line.words.push_back(word);
    for (const ConsoleCommand &command : commands) {
        if (first == command.word)
            return command.run(line);
    }
    return "unknown command '" + first + "' (help lists them)";
}

static std::string run_line(const std::vector<ConsoleCommand> &commands, const std::string &text)
{
    std::istringstream stream(text);
    std::string first;
    int number = 0;
    if (!(stream >> first) || first[0] == '#')
        return "";
    if (first == "help") {
        print_help(commands);
        return "";
    }
    if (first == "quit") {
        s_quit = true;
        return "";
    }
    if (first == "sleep") {
        stream >> number;
        return sleep_ms(number);
    }
    return console_run_line(commands, text);
}

static int run_script(const std::vector<ConsoleCommand> &commands, const std::string &path)
{
    std::ifstream script(path);
    if (!script) {
        console_print("cannot read " + path);
        return 1;
    }
    for (std::string text; !s_quit && std::getline(script, text);) {
        const std::string wrong = run_line(commands, text);
        if (!wrong.empty()) {
            console_print("script ended at '" + text + "': " + wrong);
            return 1;
        }
    }
    return 0;
}

// Splits the input by itself: poll would not see lines in the buffer of a stream.
static void run_typed(const std::vector<ConsoleCommand> &commands)
{
    pollfd wait[2] = {{s_signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    std::string pending;
    while (!s_quit && poll(wait, 2, -1) >= 0 && !wait[0].revents) {
        char buffer[4096];
        const ssize_t length = wait[1].revents ? read(STDIN_FILENO, buffer, sizeof(buffer)) : 0;
        if (wait[1].revents && length <= 0) {
            wait[1].fd = -1; // end of the input: wait for the signal only
            continue;
        }
        pending.append(buffer, (size_t)length);
        for (size_t end; !s_quit && (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
            const std::string wrong = run_line(commands, pending.substr(0, end));
            if (!wrong.empty())
                console_print(wrong);
        }
    }
}

int console_run(const std::vector<std::vector<ConsoleCommand>> &groups, const std::string &script)
{
    std::vector<ConsoleCommand> commands;
    for (const auto &group : groups)
        commands.insert(commands.end(), group.begin(), group.end());
    if (!script.empty() && run_script(commands, script) != 0)
        return 1;
    run_typed(commands);
    return 0;
}

std::string console_option(int argc, char **argv, const std::string &name, const std::string &missing)
{
    for (int i = 1; i + 1 < argc; i++) {
        if (name == argv[i])
            return argv[i + 1];
    }
    return missing;
}

int console_option_number(int argc, char **argv, const std::string &name, int missing)
{
    return atoi(console_option(argc, argv, name, std::to_string(missing)).c_str());
}

bool console_has_option(int argc, char **argv, const std::string &name)
{
    for (int i = 1; i < argc; i++) {
        if (name == argv[i])
            return true;
    }
    return false;
}
