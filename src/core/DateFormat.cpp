#include "core/DateFormat.h"

#include <unicode/datefmt.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <functional>
#include <map>
#include <memory>

namespace osv {
namespace {

const icu::Locale& chineseLocale() {
    static const icu::Locale locale("zh", "CN");
    return locale;
}

std::string render(icu::DateFormat* format, Date date) {
    if (!format) return {};
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

// Building a formatter costs far more than using one (titles of thousands of entries are
// formatted at launch), so each thread keeps the ones it has built. ICU formatters are
// not to be shared between threads.
icu::DateFormat* cached(const std::string& key, std::string_view timeZone, const std::function<icu::DateFormat*()>& make) {
    thread_local std::map<std::string, std::unique_ptr<icu::DateFormat>> formats;
    auto& slot = formats[key + "|" + std::string(timeZone)];
    if (!slot) {
        slot.reset(make());
        if (slot && !timeZone.empty())
            slot->adoptTimeZone(icu::TimeZone::createTimeZone(
                icu::UnicodeString::fromUTF8(icu::StringPiece(timeZone.data(), int32_t(timeZone.size())))));
    }
    return slot.get();
}

}  // namespace

std::string formatDate(Date date, std::string_view pattern, std::string_view timeZone) {
    icu::DateFormat* format = cached("p|" + std::string(pattern), timeZone, [&]() -> icu::DateFormat* {
        UErrorCode status = U_ZERO_ERROR;
        auto f = std::make_unique<icu::SimpleDateFormat>(
            icu::UnicodeString::fromUTF8(icu::StringPiece(pattern.data(), int32_t(pattern.size()))), chineseLocale(),
            status);
        return U_FAILURE(status) ? nullptr : f.release();
    });
    return render(format, date);
}

std::string formatDate(Date date, DateStyle dateStyle, TimeStyle timeStyle, std::string_view timeZone) {
    const std::string key = "s|" + std::to_string(int(dateStyle)) + std::to_string(int(timeStyle));
    icu::DateFormat* format = cached(key, timeZone, [&] {
        return icu::DateFormat::createDateTimeInstance(icuStyle(dateStyle), icuStyle(timeStyle), chineseLocale());
    });
    return render(format, date);
}

}  // namespace osv
