#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

namespace testsupport {

/**
 * A fresh folder of mode 0700 for the terminations of one test, named by the environment variable
 * TRANSPORT_DIR, which child programs inherit. Make it before anything of the transport is used.
 * Its end removes the folder with its contents and puts the variable back.
 */
class RendezvousFolder {
public:
    RendezvousFolder() {
        if (mkdtemp(path_.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), "folder " + path_);
        if (char const* former = std::getenv("TRANSPORT_DIR"))
            former_ = former;
        setenv("TRANSPORT_DIR", path_.c_str(), 1);
    }
    ~RendezvousFolder() {
        if (former_)
            setenv("TRANSPORT_DIR", former_->c_str(), 1);
        else
            unsetenv("TRANSPORT_DIR");
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    RendezvousFolder(RendezvousFolder const&) = delete;
    RendezvousFolder& operator=(RendezvousFolder const&) = delete;

    std::string const& path() const { return path_; }

private:
    std::string path_ = (std::filesystem::temp_directory_path() / "reflectorb-XXXXXX").string();
    std::optional<std::string> former_;
};

}  // namespace testsupport
