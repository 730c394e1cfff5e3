#pragma once

#include <optional>
#include <string>

namespace testsupport {

/**
 * A fresh folder of mode 0700 for the terminations of one test, named by the environment variable
 * TRANSPORT_DIR, which child programs inherit. Make it before anything of the transport is used.
 * Its end removes the folder with its contents and puts the variable back.
 */
class RendezvousFolder {
public:
    RendezvousFolder();
    ~RendezvousFolder();
    RendezvousFolder(RendezvousFolder const&) = delete;
    RendezvousFolder& operator=(RendezvousFolder const&) = delete;

    std::string const& path() const { return path_; }

private:
    std::string path_;
    std::optional<std::string> former_;
};

}  // namespace testsupport
