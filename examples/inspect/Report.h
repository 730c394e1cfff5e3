// What goes wrong, told to the user.
#pragma once

#include <string>

/** Writes to standard error; false. */
bool complain(std::string const& text);

/** Why a call failed, by the code of its failure. */
std::string failureText(unsigned int code);
