#include "transcript/TranscriptJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/AtomicFile.h"
#include "transcript/TranscriptEventJson.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

fs::path fileFor(const Uuid& id, const fs::path& directory) { return directory / (id.text() + ".jsonl"); }

}  // namespace

TranscriptJournal::TranscriptJournal(const Uuid& recordingID, const fs::path& directory, ProblemHandler onProblem)
    : path_(fileFor(recordingID, directory)), recordingID_(recordingID), onProblem_(std::move(onProblem)) {
    std::error_code ec;
    fs::create_directories(directory, ec);
    fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        report("journal_open_failed", "转写日志打不开", path_.string() + "：" + std::strerror(errno));
        return;
    }
    // A killed process may have left half a line. Start on a line of our own, or the first
    // event written now would be glued to that half and lost with it.
    struct stat st {};
    if (::fstat(fd_, &st) == 0 && st.st_size > 0) {
        const int reader = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        char last = '\n';
        if (reader >= 0) {
            if (::pread(reader, &last, 1, st.st_size - 1) != 1) last = '\n';
            ::close(reader);
        }
        endsMidLine_ = last != '\n';
    }
}

TranscriptJournal::~TranscriptJournal() { close(); }

void TranscriptJournal::report(std::string code, std::string title, std::string details) {
    if (reported_ || !onProblem_) return;
    reported_ = true;
    onProblem_(OpenAIDebugLog{DebugEvent::Level::warning, DebugEvent::Category::app, std::move(title),
                              std::move(details) + "。会话照常进行，但崩溃时这之后的字幕可能找不回来。",
                              std::move(code)});
}

void TranscriptJournal::record(const TranscriptEventLog& log) {
    if (fd_ < 0 || written_ >= log.size()) return;
    const std::string lines = encodeJsonLines(log, written_);
    const std::string batch = endsMidLine_ ? "\n" + lines : lines;
    const std::size_t lead = batch.size() - lines.size();
    std::size_t done = 0;
    int failure = 0;
    while (done < batch.size()) {
        const ssize_t n = ::write(fd_, batch.data() + done, batch.size() - done);
        if (n > 0) {
            done += std::size_t(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            failure = n < 0 ? errno : EIO;
            break;
        }
    }
    if (done < lead) return report("journal_write_failed", "转写日志写入失败", path_.string() + "：" + std::strerror(failure));
    // Only whole lines count as written; a cut one is closed off and written again.
    const std::string_view reached = std::string_view(batch).substr(lead, done - lead);
    written_ += std::size_t(std::count(reached.begin(), reached.end(), '\n'));
    endsMidLine_ = !reached.empty() && reached.back() != '\n';
    if (done < batch.size())
        report("journal_write_failed", "转写日志写入失败", path_.string() + "：" + std::strerror(failure));
}

void TranscriptJournal::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void TranscriptJournal::discard() {
    close();
    std::error_code ec;
    fs::remove(path_, ec);
}

std::optional<TranscriptJournal::Recovered> TranscriptJournal::recover(const fs::path& file) {
    const auto id = Uuid::parse(file.stem().string());
    if (!id) return std::nullopt;
    auto bytes = readWholeFile(file);
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
