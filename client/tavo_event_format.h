// One line of text or JSON per decoded event, for people and scripts.
#pragma once

#include <string>

#include "client/tavo_event_decoder.h"

namespace Tavo::Client {

// "12:00:01.123 start pid=123 ppid=1 uid=0 comm=bash" (no line break).
// clock is the local time of day the event arrived, already formatted.
std::string FormatEventText(const Event& event, const std::string& clock);
// {"time":"12:00:01.123","event":"start","code":50001,"pid":123,...}
std::string FormatEventJson(const Event& event, const std::string& clock);
// Local time of day with milliseconds, "HH:MM:SS.mmm".
std::string ClockNow();
// A JSON string literal, quotes included; control and non-ASCII bytes as \u00XX.
std::string JsonQuote(const std::string& text);

}  // namespace Tavo::Client
