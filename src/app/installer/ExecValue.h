#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velmora::AppInstaller {

// The Exec value of a desktop entry (menu or autostart) that runs `arguments` as given, written
// as it stands in the file: an argument holding a reserved character (blanks, quotes,
// backslash, and what a shell would read: > < ~ | & ; $ * ? # ( ) `) goes in double quotes, where
// " ` $ and \ take a backslash; a % is doubled so that no launcher reads it as a field code; and
// the value is then escaped once more as any string of the file is (a backslash doubles again).
std::string execValue(const std::vector<std::string>& arguments);

// A string value as it stands in a desktop entry: backslash, line breaks and tabs escaped.
std::string stringValue(const std::string& text);

// The arguments an Exec value as it stands in the file runs, field codes left out; nothing when
// it can't be read (an unfinished quote, a % code that isn't one).
std::optional<std::vector<std::string>> execArguments(const std::string& value);

}  // namespace velmora::AppInstaller
