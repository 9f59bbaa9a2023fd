#pragma once

// Real servers on the loopback interface for the wire clients' integration tests: the
// fake realtime server run as its own process, and helpers that wait on the Qt event loop.

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QStringList>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "core/Json.h"
#include "core/Uuid.h"

namespace osv::testing {

// Runs the event loop until `done` holds or `seconds` pass; whether it held.
inline bool waitFor(const std::function<bool()>& done, double seconds = 10.0) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > qint64(seconds * 1000)) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

// Runs the event loop for `seconds`, to let anything that would still come arrive.
inline void settle(double seconds) {
    waitFor([] { return false; }, seconds);
}

class FakeRealtimeServer {
public:
    // Starts the server with `scenario` (the text of a scenario file).
    explicit FakeRealtimeServer(const std::string& scenario, const std::string& expectedKey = "sk-fake")
        : dir_(std::filesystem::temp_directory_path() / ("osv-fake-realtime-" + Uuid::random().text())) {
        std::filesystem::create_directories(dir_);
        std::ofstream(dir_ / "scenario.jsonl") << scenario;
        process_.setProgram(OSV_FAKE_REALTIME);
        process_.setArguments({"--scenario", QString::fromStdString((dir_ / "scenario.jsonl").string()), "--record",
                               QString::fromStdString(recordPath().string()), "--expect-key",
                               QString::fromStdString(expectedKey)});
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process_.start();
        if (process_.waitForReadyRead(10'000)) port_ = process_.readLine().trimmed().toInt();
    }
    ~FakeRealtimeServer() {
        process_.kill();
        process_.waitForFinished(5'000);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    int port() const { return port_; }
    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_) + "/v1"; }
    std::filesystem::path recordPath() const { return dir_ / "received.jsonl"; }
    const std::filesystem::path& directory() const { return dir_; }

    // The record so far, one value a line.
    std::vector<json::Json> record() const {
        std::vector<json::Json> lines;
        std::ifstream in(recordPath());
        std::string line;
        while (std::getline(in, line))
            if (auto j = json::parse(line)) lines.push_back(std::move(*j));
        return lines;
    }
    bool hasClosedLine() const {
        for (const auto& l : record())
            if (l.value("event", "") == "closed") return true;
        return false;
    }

private:
    std::filesystem::path dir_;
    QProcess process_;
    int port_ = 0;
};

}  // namespace osv::testing
