// SPDX-License-Identifier: Apache-2.0

#include "cli/live/full_screen.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "base/text.h"
#include "cli/failure.h"
#include "cli/output/terminal.h"

namespace l2fibctl {

namespace {

constexpr std::string_view enter_text = "\x1b[?1049h\x1b[?25l\x1b[2J"; // alternate screen, no cursor, nothing on it
constexpr std::string_view leave_text = "\x1b[0m\x1b[?25h\x1b[?1049l";
constexpr std::array fatal_signals = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGQUIT};
constexpr size_t max_keys_bytes = 256;
constexpr char escape_character = '\x1b';

// What a handler of a fatal signal gives back. A handler can use nothing but static storage.
struct taken_terminal {
    volatile std::sig_atomic_t is_taken = 0;
    int descriptor = -1;
    termios before = {};
};
taken_terminal held;

void write_text(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return; // the terminal has gone: nothing is left to give back
        }
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
    }
}

// Calls only functions that a signal handler may call.
void give_back()
{
    if (held.is_taken != 0) {
        held.is_taken = 0;
        write_text(leave_text);
        tcsetattr(held.descriptor, TCSANOW, &held.before);
    }
}

void give_back_and_die(int signal)
{
    give_back();
    std::signal(signal, SIG_DFL);
    raise(signal);
}

// ---- Keys ----

struct sequence {
    std::string_view bytes;
    key_kind kind;
};

// Terminals send cursor keys as CSI or, in application mode, as SS3 sequences.
constexpr sequence sequences[] = {
    {"\x1b[A", key_kind::up},    {"\x1bOA", key_kind::up},       {"\x1b[B", key_kind::down},
    {"\x1bOB", key_kind::down},  {"\x1b[5~", key_kind::page_up}, {"\x1b[6~", key_kind::page_down},
    {"\x1b[H", key_kind::home},  {"\x1bOH", key_kind::home},     {"\x1b[1~", key_kind::home},
    {"\x1b[F", key_kind::end},   {"\x1bOF", key_kind::end},      {"\x1b[4~", key_kind::end},
    {"\r", key_kind::enter},     {"\n", key_kind::enter},        {"\x7f", key_kind::backspace},
    {"\b", key_kind::backspace}, {"\x1a", key_kind::suspend},    {"\x0c", key_kind::redraw},
};

bool is_final_byte(char c)
{
    return c >= '@' && c <= '~';
}

// Returns the length of the escape sequence at the start of the bytes, or 0 if its end has not arrived. An Escape
// before a byte that begins no sequence is a key of its own.
size_t escape_length(std::string_view bytes)
{
    constexpr size_t introducer = 2;
    if (bytes.size() < introducer) {
        return 0;
    }
    if (bytes[1] == 'O') {
        return bytes.size() > introducer ? introducer + 1 : 0;
    }
    if (bytes[1] != '[') {
        return 1;
    }
    const auto end = std::ranges::find_if(bytes.substr(introducer), is_final_byte);
    return end == bytes.end() ? 0 : static_cast<size_t>(end - bytes.begin()) + 1;
}

// The same for any key. Bytes that are not UTF-8 are keys of one byte.
size_t key_length(std::string_view bytes)
{
    if (bytes.front() == escape_character) {
        return escape_length(bytes);
    }
    constexpr uint8_t first_lead = 0xc0;
    constexpr size_t max_utf8 = 4;
    const bool may_grow = static_cast<uint8_t>(bytes.front()) >= first_lead && bytes.size() < max_utf8
                          && std::ranges::all_of(bytes.substr(1), base::is_utf8_continuation);
    const size_t length = base::utf8_length(bytes);
    return length > 0 ? length : may_grow ? 0 : 1;
}

// Returns nothing for an unknown sequence or a control character without a meaning.
std::optional<key> key_of(std::string_view bytes)
{
    const auto *found = std::ranges::find(sequences, bytes, &sequence::bytes);
    if (found != std::end(sequences)) {
        return key{found->kind};
    }
    if (bytes.size() == 1 && bytes.front() == escape_character) {
        return key{key_kind::escape};
    }
    const bool is_text = base::utf8_length(bytes) == bytes.size() && bytes.front() >= ' ';
    const bool is_wide = bytes.size() > 1 && bytes.front() != escape_character;
    return is_text || is_wide ? std::optional(key{key_kind::character, std::string(bytes)}) : std::nullopt;
}

} // namespace

std::vector<key> key_decoder::feed(std::string_view bytes)
{
    waiting_ += bytes;
    std::vector<key> keys;
    std::string_view left = waiting_;
    while (!left.empty()) {
        const size_t length = key_length(left);
        if (length == 0) {
            break;
        }
        if (const auto pressed = key_of(left.substr(0, length))) {
            keys.push_back(*pressed);
        }
        left.remove_prefix(length);
    }
    waiting_ = std::string(left);
    return keys;
}

std::optional<key> key_decoder::flush()
{
    const bool is_escape = waiting_.size() == 1 && waiting_.front() == escape_character;
    waiting_.clear();
    return is_escape ? std::optional(key{key_kind::escape}) : std::nullopt;
}

screen_size size_of_terminal()
{
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
        return {};
    }
    return {size.ws_row, size.ws_col};
}

full_screen::full_screen()
    : keys_(is_on_terminal() ? open("/dev/tty", O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1)
{
    if (keys_ < 0 || tcgetattr(keys_, &held.before) != 0) {
        throw failure(exit_status::wrong_usage, "no terminal: expected one at standard output; --once needs none");
    }
    held.descriptor = keys_;
    for (const int signal : fatal_signals) {
        std::signal(signal, give_back_and_die);
    }
    enter();
}

full_screen::~full_screen()
{
    leave();
    close(keys_);
}

// Ctrl-C stays a signal, so that it also ends a wait for the daemon. Ctrl-Z becomes a key, because the terminal has to
// be given back before the process stops.
void full_screen::enter() const
{
    termios wanted = held.before;
    wanted.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
    wanted.c_iflag &= ~static_cast<tcflag_t>(ICRNL | IXON);
    wanted.c_cc[VSUSP] = _POSIX_VDISABLE;
    wanted.c_cc[VMIN] = 1;
    wanted.c_cc[VTIME] = 0;
    held.is_taken = 1;
    tcsetattr(keys_, TCSADRAIN, &wanted);
    write_text(enter_text);
}

void full_screen::leave()
{
    give_back();
    for (const int signal : fatal_signals) {
        std::signal(signal, SIG_DFL);
    }
}

std::vector<key> full_screen::read_keys(std::chrono::milliseconds max_wait)
{
    pollfd waits = {keys_, POLLIN, 0};
    if (poll(&waits, 1, static_cast<int>(max_wait.count())) <= 0) {
        const auto escape = decoder_.flush();
        return escape ? std::vector<key>{*escape} : std::vector<key>();
    }
    char bytes[max_keys_bytes];
    const ssize_t got = read(keys_, bytes, sizeof(bytes));
    if (got > 0) {
        return decoder_.feed({bytes, static_cast<size_t>(got)});
    }
    if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        throw failure(exit_status::done, ""); // as if the reader of a pipe had closed it
    }
    return {};
}

void full_screen::suspend()
{
    give_back();
    raise(SIGSTOP);
    enter();
}

} // namespace l2fibctl
