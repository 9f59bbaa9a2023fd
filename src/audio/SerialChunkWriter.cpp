#include "audio/SerialChunkWriter.h"

#include "core/AtomicFile.h"

namespace osv {

SerialChunkWriter::SerialChunkWriter(Scheduler& scheduler) : scheduler_(scheduler), worker_([this] { run(); }) {}

SerialChunkWriter::~SerialChunkWriter() {
    {
        std::lock_guard guard(lock_);
        stopping_ = true;
        *alive_ = false;
    }
    wake_.notify_all();
    worker_.join();
}

void SerialChunkWriter::write(std::string path, std::string bytes, std::function<void(bool ok)> done) {
    {
        std::lock_guard guard(lock_);
        jobs_.push_back({std::move(path), std::move(bytes), std::move(done)});
    }
    wake_.notify_one();
}

void SerialChunkWriter::run() {
    for (;;) {
        Job job;
        {
            std::unique_lock guard(lock_);
            wake_.wait(guard, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty()) return;  // stopping, and everything handed over is written
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        bool ok = false;
        try {
            ok = writeFileAtomically(job.path, job.bytes).ok();
        } catch (...) {
            ok = false;  // a thread's body never lets an exception end the program
        }
        std::lock_guard guard(lock_);
        if (!*alive_ || !job.done) continue;
        scheduler_.post([done = std::move(job.done), ok] { done(ok); });
    }
}

}  // namespace osv
