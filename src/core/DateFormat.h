#pragma once

// Dates as a Chinese-reading person sees them, through ICU in the zh_CN locale. The time
// zone is the user's own unless one is named (tests name "UTC").

#include <string>
#include <string_view>

#include "core/Date.h"

namespace osv {

// A pattern in ICU's date syntax, e.g. "M月d日 HH:mm".
std::string formatDate(Date date, std::string_view pattern, std::string_view timeZone = {});

enum class DateStyle { none, numeric, abbreviated };  // "2026/1/5", "2026年1月5日"
enum class TimeStyle { none, shortened, standard };   // "14:30", "14:30:05"
std::string formatDate(Date date, DateStyle dateStyle, TimeStyle timeStyle, std::string_view timeZone = {});

}  // namespace osv
