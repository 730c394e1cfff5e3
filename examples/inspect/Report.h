// What is told to the user.
#pragma once

#include <string>

/** Writes a line to standard output, at once. */
void say(std::string const& text);

/** Writes what goes wrong to standard error; false. */
bool complain(std::string const& text);

/** Why a call failed, by the code of its failure. */
std::string failureText(unsigned int code);
