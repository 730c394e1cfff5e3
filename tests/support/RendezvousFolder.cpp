#include "RendezvousFolder.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace testsupport {

RendezvousFolder::RendezvousFolder()
    : path_((std::filesystem::temp_directory_path() / "reflectorb-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), "folder " + path_);
    if (char const* former = std::getenv("TRANSPORT_DIR"))
        former_ = former;
    setenv("TRANSPORT_DIR", path_.c_str(), 1);
}

RendezvousFolder::~RendezvousFolder() {
    if (former_)
        setenv("TRANSPORT_DIR", former_->c_str(), 1);
    else
        unsetenv("TRANSPORT_DIR");
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace testsupport
