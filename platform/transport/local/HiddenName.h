#pragma once

#include <cerrno>
#include <cstddef>
#include <string>

namespace Transport {

/** With this begins what a file of the rendezvous folder is called until it is complete. */
constexpr char const* kHiddenPrefix = ".new-";

constexpr std::size_t kUnforeseenDigits = 16;
/** Hexadecimal digits that nobody can foresee. */
std::string unforeseenDigits();
/** A hidden name with `head` and the process id in it. */
std::string hiddenName(std::string const& head);

/**
 * Has a file made under a hidden name, which nobody can have taken beforehand. `make` takes the
 * name and answers whether it has made the file; while errno then is `taken`, other names are
 * tried, a few in all. `name` is the last one. False, with errno, on failure.
 */
template <class Make>
bool makeHidden(std::string const& head, int taken, std::string& name, Make const& make) {
    constexpr int kAttempts = 8;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        name = hiddenName(head);
        if (make(name))
            return true;
        if (errno != taken)
            break;
    }
    return false;
}

}  // namespace Transport
