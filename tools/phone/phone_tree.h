// The directory tree of a simulated phone, as it is delivered.
#pragma once

#include <string>

// Makes the tree in `dir`, which must be missing or empty. Throws std::system_error, or
// std::runtime_error when there is something in it.
void phone_create(const std::string& dir);

// Sets property `name` of the phone in `dir` from outside. Throws std::system_error.
void phone_set_property(const std::string& dir, const std::string& name, const std::string& value);

// Gives the phone in `dir` the clock SPEC `spec`, from this moment on. Throws std::system_error.
void phone_set_clock(const std::string& dir, const std::string& spec);
