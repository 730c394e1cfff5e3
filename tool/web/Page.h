// The page that browsers show.
#pragma once

#include <string>

/** `once`: what its script and its style are marked with, so that the browser takes no others. */
std::string pageText(std::string const& once);
