#pragma once

// An in-memory HTTP transport: it keeps every request, and the test answers each one when
// it likes (a reply, a transport failure, or nothing at all), as a server would later.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "services/HttpTransport.h"

namespace osv::testing {

class ScriptedHttpTransport final : public HttpTransport {
public:
    struct Exchange {
        HttpRequest request;
        Completion done;
        bool cancelled = false;
        bool answered = false;
    };

    std::unique_ptr<HttpCall> send(const HttpRequest& request, Completion done) override {
        exchanges.push_back(std::make_shared<Exchange>(Exchange{request, std::move(done)}));
        return std::make_unique<Call>(exchanges.back());
    }

    // Answers the oldest unanswered request.
    void reply(int status, std::string body, HeaderList headers = {}) {
        HttpResponse r;
        r.status = status;
        r.body = std::move(body);
        r.headers = std::move(headers);
        answer(Expected<HttpResponse>(std::move(r)));
    }
    void fail(std::string code, std::string message) { answer(Expected<HttpResponse>(Error{std::move(code), std::move(message)})); }

    std::size_t unanswered() const {
        std::size_t n = 0;
        for (const auto& e : exchanges) n += !e->answered && !e->cancelled;
        return n;
    }
    const HttpRequest& request(std::size_t i) const { return exchanges.at(i)->request; }
    const HttpRequest& last() const { return exchanges.back()->request; }

    std::vector<std::shared_ptr<Exchange>> exchanges;

private:
    void answer(Expected<HttpResponse> response) {
        for (auto& e : exchanges) {
            if (e->answered || e->cancelled) continue;
            e->answered = true;
            auto done = std::move(e->done);
            if (done) done(std::move(response));
            return;
        }
    }

    class Call final : public HttpCall {
    public:
        explicit Call(std::shared_ptr<Exchange> e) : e_(std::move(e)) {}
        ~Call() override { cancel(); }
        void cancel() override {
            if (!e_->answered) e_->cancelled = true;
        }

    private:
        std::shared_ptr<Exchange> e_;
    };
};

}  // namespace osv::testing
