#include "transcript/TranscriptJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "core/AtomicFile.h"
#include "transcript/TranscriptEventJson.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

fs::path fileFor(const Uuid& id, const fs::path& directory) { return directory / (id.text() + ".jsonl"); }

}  // namespace

TranscriptJournal::TranscriptJournal(const Uuid& recordingID, const fs::path& directory)
    : url_(fileFor(recordingID, directory)), recordingID_(recordingID) {
    std::error_code ec;
    fs::create_directories(directory, ec);
    fd_ = ::open(url_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd_ < 0) return;
    // A killed process may have left half a line. Start on a line of our own, or the first
    // event written now would be glued to that half and lost with it.
    struct stat st {};
    if (::fstat(fd_, &st) == 0 && st.st_size > 0) {
        const int reader = ::open(url_.c_str(), O_RDONLY | O_CLOEXEC);
        char last = '\n';
        if (reader >= 0) {
            if (::pread(reader, &last, 1, st.st_size - 1) != 1) last = '\n';
            ::close(reader);
        }
        if (last != '\n') writeAllToDescriptor(fd_, "\n");
    }
}

TranscriptJournal::~TranscriptJournal() { close(); }

void TranscriptJournal::record(const TranscriptEventLog& log) {
    if (fd_ < 0 || written_ >= log.size()) return;
    const std::string batch = encodeJsonLines(log, written_);
    written_ = log.size();
    writeAllToDescriptor(fd_, batch);
}

void TranscriptJournal::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void TranscriptJournal::discard() {
    close();
    std::error_code ec;
    fs::remove(url_, ec);
}

std::optional<TranscriptJournal::Recovered> TranscriptJournal::recover(const fs::path& url) {
    const auto id = Uuid::parse(url.stem().string());
    if (!id) return std::nullopt;
    auto bytes = readWholeFile(url);
    if (!bytes) return std::nullopt;
    JsonLinesReading reading = decodeJsonLines(*bytes);
    if (reading.log.empty()) return std::nullopt;
    return Recovered{*id, std::move(reading.log)};
}

std::vector<fs::path> TranscriptJournal::abandoned(const fs::path& directory) {
    std::vector<fs::path> out;
    std::error_code ec;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec))
        if (it->path().extension() == ".jsonl") out.push_back(it->path());
    std::sort(out.begin(), out.end());
    return out;
}

namespace TranscriptLogStore {

Expected<void> save(const TranscriptEventLog& log, const Uuid& recordingID, const fs::path& directory) {
    if (log.empty()) return {};
    return writeFileAtomically(fileFor(recordingID, directory), encodeJsonLines(log));
}

std::optional<TranscriptEventLog> load(const Uuid& recordingID, const fs::path& directory) {
    auto bytes = readWholeFile(fileFor(recordingID, directory));
    if (!bytes) return std::nullopt;
    JsonLinesReading reading = decodeJsonLines(*bytes);
    if (reading.log.empty()) return std::nullopt;
    return std::move(reading.log);
}

void remove(const Uuid& recordingID, const fs::path& directory) {
    std::error_code ec;
    fs::remove(fileFor(recordingID, directory), ec);
}

}  // namespace TranscriptLogStore
}  // namespace osv
