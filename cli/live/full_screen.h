// SPDX-License-Identifier: Apache-2.0

// The terminal of a command that fills the screen: the alternate screen without a cursor, and keys as they are pressed.
//
//      full_screen screen;
//      for (const key pressed : screen.read_keys(std::chrono::milliseconds(100))) { ... }
//                                                      the destructor gives the terminal back as it was
//
// If the process ends by a signal that nothing handles, such as SIGSEGV or SIGABRT, a handler gives the terminal back
// first. Only SIGKILL leaves it as it is; `reset` mends it then.
//
// Threads: the main thread only. One object at a time exists.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/live/screen.h"

namespace l2fibctl {

enum class key_kind : uint8_t {
    character, // of more than one byte if it is not ASCII
    enter,
    escape,
    backspace,
    up,
    down,
    page_up,
    page_down,
    home,
    end,
    suspend, // Ctrl-Z
    redraw,  // Ctrl-L
};

struct key {
    key_kind kind;
    std::string text = {}; // of a character

    bool operator==(const key &) const = default;
};

// Turns the bytes of a terminal into keys. A sequence may arrive in pieces.
class key_decoder {
public:
    // Returns the keys whose bytes are complete. Unknown sequences are skipped.
    std::vector<key> feed(std::string_view bytes);

    // Returns the key Escape if an Escape waits for bytes that would make it a sequence. Call this when no byte has
    // arrived for a while.
    std::optional<key> flush();

private:
    std::string waiting_;
};

// The size of the terminal at standard output; the size of an ordinary one if it has none.
screen_size size_of_terminal();

class full_screen {
public:
    // Throws a failure if the process has no terminal.
    full_screen();
    ~full_screen();
    full_screen(const full_screen &) = delete;
    full_screen &operator=(const full_screen &) = delete;

    // Returns the keys that arrive within `max_wait`, as soon as there are some. Returns nothing if a signal arrives,
    // such as that of a change of the size. Throws a failure if the terminal has gone.
    std::vector<key> read_keys(std::chrono::milliseconds max_wait);

    // Gives the terminal back, stops the process as Ctrl-Z does, and takes the terminal again when the process
    // continues.
    void suspend();

private:
    void enter() const;
    static void leave();

    int keys_ = -1; // the process's terminal
    key_decoder decoder_;
};

} // namespace l2fibctl
