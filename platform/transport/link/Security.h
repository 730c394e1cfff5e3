#pragma once

#include <ctime>
#include <string>

namespace Link {

/**
 * What links authenticate each other with: plug-ins of the engine, and a folder for this machine
 * alone, as `reflectorb-link-keys` makes it. A value.
 *
 * | file of the folder | what it is |
 * |---|---|
 * | authority.pem | certificate of the node's authority, which signs all that follows |
 * | machine.pem, machine.key | this machine's certificate, and its private key |
 * | governance.p7s | that nobody joins without a certificate, and nothing travels in the clear |
 * | permissions.p7s | which slot this machine may be: it publishes as that, and reads its inbox |
 * | revoked.pem | the certificates that are good no longer |
 */
struct Security {
    std::string folder;   // absolute; empty: links authenticate nobody
    std::string plugins;  // folder of the plug-ins, absolute
    std::time_t end = 0;  // of this machine's certificate

    bool wanted() const { return !folder.empty(); }
};

/**
 * Looks for the plug-ins, beside the engine, and for the files of `folder`, which must be this
 * user's own. The result says what stands in the way, in one line; empty: nothing does, and
 * `security` is filled in.
 */
std::string findSecurity(std::string const& folder, Security& security);

/** The part of the engine's configuration for it; empty when it is not wanted. */
std::string engineConfiguration(Security const& security);

/**
 * Watches over the end of this machine's certificate, by the wall clock, as the engine does. The
 * engine ends what it has authenticated with it at that very moment, and goes on with nothing, so
 * the link leaves the bus before, and begins anew once the files have been renewed. Control thread.
 */
class Validity {
public:
    /** Takes in the files of `security`, if it is wanted; false, with a log line, when they are not
     * good now. */
    bool renew(Security& security);
    /** Whether the certificate is about to end; there is a log line, too, on each day of the last
     * month. */
    bool isOver();
    /** When to ask for that again, in milliseconds; negative: never. */
    int askAgainIn() const;

private:
    std::string folder_;
    std::time_t end_ = 0;  // 0: none is needed
    std::time_t warned_ = 0;
};

/** Text in the engine's configuration. */
std::string escaped(std::string const& text);

}  // namespace Link
