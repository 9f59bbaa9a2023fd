#pragma once

// An in-memory HTTP transport: every request waits in `calls` until the test answers it
// with reply() or fail(). A call the client cancelled or let go of is marked and never
// answered, as the real transport does.

#include <memory>
#include <string>
#include <vector>

#include "services/HttpTransport.h"

namespace osv::testing {

class FakeHttpTransport final : public HttpTransport {
public:
    struct Pending {
        HttpRequest request;
        Completion done;
        bool cancelled = false;
        bool answered = false;
    };

    std::unique_ptr<HttpCall> send(const HttpRequest& request, Completion done) override {
        auto pending = std::make_shared<Pending>(Pending{request, std::move(done)});
        calls.push_back(pending);
        return std::make_unique<Call>(pending);
    }

    // Answers the `index`th request (default: the oldest unanswered one).
    void reply(int status, std::string body, HeaderList headers = {}, int index = -1) {
        Pending& p = pick(index);
        HttpResponse r;
        r.status = status;
        r.body = std::move(body);
        r.headers = std::move(headers);
        finish(p, std::move(r));
    }
    void fail(Error error, int index = -1) { finish(pick(index), std::move(error)); }

    // The Responses body of a plain text reply.
    static std::string responsesBody(const std::string& text, int input = 10, int output = 5) {
        return R"({"output":[{"type":"message","content":[{"type":"output_text","text":")" + text +
               R"("}]}],"usage":{"input_tokens":)" + std::to_string(input) + R"(,"output_tokens":)" +
               std::to_string(output) + "}}";
    }

    std::size_t unansweredCount() const {
        std::size_t n = 0;
        for (const auto& c : calls) n += !c->answered && !c->cancelled;
        return n;
    }
    const HttpRequest& last() const { return calls.back()->request; }

    std::vector<std::shared_ptr<Pending>> calls;

private:
    class Call final : public HttpCall {
    public:
        explicit Call(std::shared_ptr<Pending> p) : pending_(std::move(p)) {}
        ~Call() override { cancel(); }
        void cancel() override {
            if (!pending_->answered) pending_->cancelled = true;
        }

    private:
        std::shared_ptr<Pending> pending_;
    };

    Pending& pick(int index) {
        if (index >= 0) return *calls.at(std::size_t(index));
        for (auto& c : calls)
            if (!c->answered && !c->cancelled) return *c;
        throw std::logic_error("no request is waiting");
    }
    static void finish(Pending& p, Expected<HttpResponse> result) {
        if (p.answered || p.cancelled) return;
        p.answered = true;
        auto done = std::move(p.done);
        if (done) done(std::move(result));
    }
};

}  // namespace osv::testing
