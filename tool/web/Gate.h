// Who may ask the gateway, and for what.
#pragma once

#include <string>

#include "web/Http.h"

/**
 * Lets in whoever has the token, by a name of this machine that no foreign page can take for
 * itself: a page of elsewhere that a browser shows beside ours must not reach us, neither by a name
 * that it has made lead here nor with the browser's help. A value; any thread.
 */
class Gate {
public:
    struct Rules {
        std::string token;      // empty: nobody needs one
        bool isOpen = false;    // to other machines: any address will do, and `name`
        std::string name = {};  // under which they know this machine, in lower case; may be empty
        int port = 0;
        bool mayChange = false;  // whether what is there may be changed
    };
    explicit Gate(Rules rules) : rules_(std::move(rules)) {}

    /** Throws a Failure with kNoAccess, if it is not to be answered. */
    void check(HttpRequest const& request) const;
    /** The same for what anybody may have who comes by the right way: the bare page, which tells
     * nothing and holds the token itself. */
    void checkWay(HttpRequest const& request) const;
    /** The same for one that is to change something. */
    void checkChange() const;
    bool mayChange() const { return rules_.mayChange; }

    /** A new token: 128 bits that nobody can guess. */
    static std::string makeToken();
    /** The token in a file, its first line; throws a Failure when others may read it, or it is too
     * short. */
    static std::string readToken(std::string const& path);

private:
    bool isOurs(std::string const& host) const;
    bool hasToken(HttpRequest const& request) const;

    Rules const rules_;
};
