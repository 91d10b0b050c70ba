#pragma once

// Checks for values from rule files that end up in D-Bus object paths and
// interface names. Such a value must stay in its place: a PSU name is one
// element of a path below its parent, a PSU type one element of an
// interface name below its prefix. A value that would leave its place or
// that D-Bus forbids is refused with one log line. (A board's names are not
// checked here: the bus refuses them when its interface is initialised.)

#include <string>
#include <string_view>

namespace hwtopod
{

// Whole paths and names are judged by the bus library; an element is what
// can stand between two slashes or two dots of one.
bool isValidPathElement(std::string_view element);
bool isValidObjectPath(std::string_view path);
bool isValidInterfaceElement(std::string_view element);
bool isValidInterfaceName(std::string_view name);

// The value as it can stand in a log line: printable ASCII as it is,
// backslash, double quote and every other byte as \xNN, in double quotes.
// A value from outside can thus neither break the line nor fake another one.
std::string printableName(std::string_view value);

// These log at ERROR "Refused <what> <printable value>: <reason>" and return
// false when value is not what the name says; else they return true quietly.
// Every byte but an ASCII letter or digit replaced by '_'.
std::string nonAlnumToUnderscores(std::string text);

bool acceptPathElement(std::string_view what, std::string_view value);
bool acceptInterfaceElement(std::string_view what, std::string_view value);

} // namespace hwtopod
