#include "core/DateFormat.h"

#include <unicode/datefmt.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <memory>

namespace osv {
namespace {

const icu::Locale& chineseLocale() {
    static const icu::Locale locale("zh", "CN");
    return locale;
}

std::string render(icu::DateFormat* format, Date date, std::string_view timeZone) {
    if (!format) return {};
    if (!timeZone.empty())
        format->adoptTimeZone(icu::TimeZone::createTimeZone(
            icu::UnicodeString::fromUTF8(icu::StringPiece(timeZone.data(), int32_t(timeZone.size())))));
    icu::UnicodeString text;
    format->format(UDate(date.unixSeconds() * 1000.0), text);
    std::string out;
    text.toUTF8String(out);
    return out;
}

icu::DateFormat::EStyle icuStyle(DateStyle s) {
    switch (s) {
        case DateStyle::none: return icu::DateFormat::kNone;
        case DateStyle::numeric: return icu::DateFormat::kShort;
        case DateStyle::abbreviated: return icu::DateFormat::kMedium;
    }
    return icu::DateFormat::kNone;
}

icu::DateFormat::EStyle icuStyle(TimeStyle s) {
    switch (s) {
        case TimeStyle::none: return icu::DateFormat::kNone;
        case TimeStyle::shortened: return icu::DateFormat::kShort;
        case TimeStyle::standard: return icu::DateFormat::kMedium;
    }
    return icu::DateFormat::kNone;
}

}  // namespace

std::string formatDate(Date date, std::string_view pattern, std::string_view timeZone) {
    UErrorCode status = U_ZERO_ERROR;
    icu::SimpleDateFormat format(icu::UnicodeString::fromUTF8(icu::StringPiece(pattern.data(), int32_t(pattern.size()))),
                                 chineseLocale(), status);
    if (U_FAILURE(status)) return {};
    return render(&format, date, timeZone);
}

std::string formatDate(Date date, DateStyle dateStyle, TimeStyle timeStyle, std::string_view timeZone) {
    std::unique_ptr<icu::DateFormat> format(
        icu::DateFormat::createDateTimeInstance(icuStyle(dateStyle), icuStyle(timeStyle), chineseLocale()));
    return render(format.get(), date, timeZone);
}

}  // namespace osv
