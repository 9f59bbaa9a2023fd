#pragma once

// Reading the index's text without building documents: finding where a value ends, and
// recognising the bulky parts of an entry (its transcript texts and segments) when they
// stand exactly as this build writes them. Such a part can stay as text until first use
// and be written back unchanged, because decoding and encoding it again would give the
// same bytes. Anything else is left to the forgiving decoder.
//
// The text is assumed to be valid UTF-8 (checked once for the whole file).

#include <cstddef>
#include <string>
#include <string_view>

namespace osv::indextext {

// Past JSON white space.
const char* skipWhitespace(const char* p, const char* end);

// Past the JSON value at `p`, as far as strings and brackets tell; null when it runs off
// the end. Not a validation: the decoder that reads the value validates it.
const char* skipValue(const char* p, const char* end);

// Past the string at `p` when it is written exactly as this build writes strings (only the
// escapes it uses, no raw control characters); null otherwise.
const char* canonicalString(const char* p, const char* end);

// Past the segments array at `p` when it is exactly what this build writes for the
// segments it would decode from it: every segment with a readable id, its keys in order,
// numbers in their shortest form, and the list already sorted by sequence, then start.
// `count` is the number of segments. Null otherwise.
const char* canonicalSegments(const char* p, const char* end, std::size_t& count);

// The text of a string recognised by canonicalString (quotes included).
std::string unescapeCanonicalString(std::string_view quoted);

}  // namespace osv::indextext
