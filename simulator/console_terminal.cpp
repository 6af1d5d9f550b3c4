#include "console_terminal.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <map>
#include <netinet/in.h>
#include <set>

// RFC 854 and the options that are taken up; every other one is declined.
enum {
    IAC = 255,
    DONT = 254,
    DO = 253,
    WONT = 252,
    WILL = 251,
    SUB_BEGIN = 250,
    SUB_END = 240,
    OPTION_ECHO = 1,
    OPTION_GO_AHEAD = 3,
    OPTION_TYPE = 24,
    OPTION_SIZE = 31
};

static const std::string k_type = {(char)IAC, (char)SUB_BEGIN, OPTION_TYPE,  0, 'x', 't', 'e', 'r',
                                   'm',       (char)IAC,       (char)SUB_END};
static const std::string k_size = {(char)IAC, (char)SUB_BEGIN, OPTION_SIZE, 0, 80, 0, 24, (char)IAC, (char)SUB_END};

// Where in the stream the reader is.
enum TelnetPlace { PLACE_TEXT, PLACE_COMMAND, PLACE_OPTION, PLACE_SUB, PLACE_SUB_COMMAND };

struct Terminal {
    ConsoleTerminals *terminals;
    std::string serial;
    bufferevent *conn;
    TelnetPlace place = PLACE_TEXT;
    int command = 0;           // of PLACE_OPTION
    std::string sub;           // of PLACE_SUB
    std::set<int> answered;    // command and option, so that both ends cannot answer each other for ever
    bool after_return = false; // a NUL after a carriage return belongs to it
};

struct ConsoleTerminals {
    SimLoop *loop;
    ConsoleEvents *events;
    std::map<std::string, Terminal *> open; // by serial number
};

ConsoleTerminals *console_terminals_new(SimLoop *loop, ConsoleEvents *events)
{
    return new ConsoleTerminals{loop, events, {}};
}

static void terminal_close(Terminal *terminal)
{
    terminal->terminals->open.erase(terminal->serial);
    bufferevent_free(terminal->conn);
    delete terminal;
}

void console_terminals_free(ConsoleTerminals *terminals)
{
    while (!terminals->open.empty())
        terminal_close(terminals->open.begin()->second);
    delete terminals;
}

static void terminal_send(Terminal *terminal, const std::string &bytes)
{
    bufferevent_write(terminal->conn, bytes.data(), bytes.size());
}

static void option_answer(Terminal *terminal, int option)
{
    const bool offered = terminal->command == WILL;
    if ((!offered && terminal->command != DO) || !terminal->answered.insert(terminal->command << 8 | option).second)
        return;
    const bool wanted = offered ? option == OPTION_ECHO || option == OPTION_GO_AHEAD
                                : option == OPTION_GO_AHEAD || option == OPTION_TYPE || option == OPTION_SIZE;
    const int answer = offered ? (wanted ? DO : DONT) : (wanted ? WILL : WONT);
    terminal_send(terminal, {(char)IAC, (char)answer, (char)option});
    if (!offered && option == OPTION_SIZE)
        terminal_send(terminal, k_size);
}

static void command_handle(Terminal *terminal, int byte, std::string *text)
{
    terminal->command = byte;
    terminal->place = byte == SUB_BEGIN ? PLACE_SUB : byte >= WILL && byte <= DONT ? PLACE_OPTION : PLACE_TEXT;
    terminal->sub.clear();
    if (byte == IAC)
        *text += (char)byte;
}

// One byte from the device; what belongs on the screen is added to text.
static void byte_handle(Terminal *terminal, int byte, std::string *text)
{
    switch (terminal->place) {
    case PLACE_TEXT:
        if (byte == IAC)
            terminal->place = PLACE_COMMAND;
        else if (byte != 0 || !terminal->after_return)
            *text += (char)byte;
        terminal->after_return = byte == '\r';
        break;
    case PLACE_COMMAND:
        command_handle(terminal, byte, text);
        break;
    case PLACE_OPTION:
        option_answer(terminal, byte);
        terminal->place = PLACE_TEXT;
        break;
    case PLACE_SUB:
        if (byte == IAC)
            terminal->place = PLACE_SUB_COMMAND;
        else if (terminal->sub.size() < 64)
            terminal->sub += (char)byte;
        break;
    case PLACE_SUB_COMMAND:
        terminal->place = byte == SUB_END ? PLACE_TEXT : PLACE_SUB;
        if (byte == SUB_END && terminal->sub == std::string({OPTION_TYPE, 1})) // 1: send it
            terminal_send(terminal, k_type);
        break;
    }
}

static void on_read(bufferevent *conn, void *arg)
{
    Terminal *terminal = (Terminal *)arg;
    evbuffer *input = bufferevent_get_input(conn);
    std::string bytes(evbuffer_get_length(input), '\0'), text;
    evbuffer_remove(input, &bytes[0], bytes.size());
    for (char byte : bytes)
        byte_handle(terminal, (unsigned char)byte, &text);
    if (!text.empty())
        console_events_terminal(terminal->terminals->events, terminal->serial, text, true);
}

static void on_event(bufferevent *, short what, void *arg)
{
    Terminal *terminal = (Terminal *)arg;
    if (what & BEV_EVENT_CONNECTED)
        return;
    console_events_terminal(terminal->terminals->events, terminal->serial, "", false);
    terminal_close(terminal);
}

void console_terminals_open(ConsoleTerminals *terminals, const std::string &serial, int port)
{
    auto found = terminals->open.find(serial);
    if (found != terminals->open.end())
        terminal_close(found->second);
    Terminal *terminal = new Terminal;
    terminal->terminals = terminals;
    terminal->serial = serial;
    terminal->conn = bufferevent_socket_new(sim_loop_base(terminals->loop), -1, BEV_OPT_CLOSE_ON_FREE);
    terminals->open[serial] = terminal;
    bufferevent_setcb(terminal->conn, on_read, nullptr, on_event, terminal);
    bufferevent_enable(terminal->conn, EV_READ | EV_WRITE);
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons((uint16_t)port);
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bufferevent_socket_connect(terminal->conn, (sockaddr *)&peer, sizeof(peer)); // a failure comes to on_event
}

bool console_terminals_type(ConsoleTerminals *terminals, const std::string &serial, const std::string &keys)
{
    auto found = terminals->open.find(serial);
    if (found == terminals->open.end())
        return false;
    std::string bytes;
    for (char key : keys) {
        bytes += key;
        if (key == '\r')
            bytes += '\0';
        else if ((unsigned char)key == IAC)
            bytes += key;
    }
    terminal_send(found->second, bytes);
    return true;
}
