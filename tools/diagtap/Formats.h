// Reports as text for people and as files for programs. docs/capture.md has the forms.
#pragma once

#include <string>

#include "tools/diagtap/Analysis.h"

namespace diagtap {

std::string toText(const Report& report);
std::string toJson(const Report& report);
std::string toJunit(const Report& report);
std::string toHtml(const Report& report);
std::string toCsv(const Report& report);

// "12.345", in milliseconds, of nanoseconds.
std::string inMs(double nanoseconds);

// For XML and HTML; leaves out what XML cannot say.
std::string escaped(const std::string& text);

// "EACCES", "2 of 3 masks came": what a table says of a step beside its state.
std::string remarkOn(const Step& step);

}  // namespace diagtap
