#pragma once

// JSON and text forms shared by the commands. Internal to the command line.

#include <iosfwd>
#include <vector>

#include "core/Json.h"
#include "transcript/CaptionGrouping.h"
#include "transcript/TranslationRouter.h"

namespace osv::cli {

json::Json optionalString(const std::optional<std::string>& s);
// Every field under its own name; ids as upper-case UUID text, absent values as null.
json::Json captionBlockJson(const CaptionGrouping::CaptionBlock& block);
json::Json requestJson(const TranslationRouter::Request& request);
// Blocks as a reader sees them: who speaks, when, the source, the translation below.
void printCaptionBlocks(const std::vector<CaptionGrouping::CaptionBlock>& blocks, std::ostream& out);

}  // namespace osv::cli
