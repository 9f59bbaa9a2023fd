#include "cli/CliStores.h"

#include <cstdlib>
#include <ostream>

#include "core/Paths.h"

namespace osv::cli {

Stores::Stores(std::ostream& err)
    : defaults(configDirectory()), secrets(&backend, supportDirectory()), settings(defaults, secrets) {
    if (defaults.loadProblem()) err << "ossevra-cli: " << *defaults.loadProblem() << "\n";
}

std::optional<std::string> environmentKey() {
    const char* v = std::getenv("OPENAI_API_KEY");
    if (!v || !*v) return std::nullopt;
    return std::string(v);
}

}  // namespace osv::cli
