#pragma once

// Chunk files written on a thread of their own, one after another, so that neither a
// capture thread nor the main thread waits for a disk; results come back through the
// Scheduler. Destroying the writer finishes what was queued (a chunk handed over is never
// dropped at quit) but delivers no more results.

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "audio/FrameSource.h"
#include "core/Scheduler.h"

namespace osv {

class SerialChunkWriter final : public ChunkFileWriter {
public:
    explicit SerialChunkWriter(Scheduler& scheduler);
    ~SerialChunkWriter() override;
    void write(std::string path, std::string bytes, std::function<void(bool ok)> done) override;

private:
    struct Job {
        std::string path;
        std::string bytes;
        std::function<void(bool)> done;
    };
    void run();

    Scheduler& scheduler_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    std::mutex lock_;
    std::condition_variable wake_;
    std::deque<Job> jobs_;
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace osv
