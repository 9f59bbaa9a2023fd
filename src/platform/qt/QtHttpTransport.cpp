#include "platform/qt/QtHttpTransport.h"

#include <QHttpMultiPart>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <cmath>

#include "core/EntryGuard.h"

namespace osv {
namespace {

QByteArray bytes(const std::string& s) { return QByteArray(s.data(), qsizetype(s.size())); }

// Quotes a form field's name or file name; quotes and line ends can't be carried.
QByteArray quoted(const std::string& s) {
    QByteArray out = "\"";
    for (char c : s) {
        if (c == '"') out += "%22";
        else if (c == '\r') out += "%0D";
        else if (c == '\n') out += "%0A";
        else out += c;
    }
    return out + "\"";
}

QHttpMultiPart* multipart(const std::vector<MultipartPart>& form) {
    auto* body = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    for (const auto& p : form) {
        QHttpPart part;
        QByteArray disposition = "form-data; name=" + quoted(p.name);
        if (p.fileName) disposition += "; filename=" + quoted(*p.fileName);
        part.setRawHeader("Content-Disposition", disposition);
        if (!p.contentType.empty()) part.setRawHeader("Content-Type", bytes(p.contentType));
        part.setBody(bytes(p.data));
        body->append(part);
    }
    return body;
}

class QtHttpCall final : public HttpCall {
public:
    QtHttpCall(QNetworkAccessManager& manager, const HttpRequest& request, HttpTransport::Completion done)
        : done_(std::move(done)), context_(std::make_unique<QObject>()) {
        QNetworkRequest networkRequest{QUrl(QString::fromStdString(request.url))};
        for (const auto& [name, value] : request.headers) networkRequest.setRawHeader(bytes(name), bytes(value));
        const QByteArray verb = bytes(request.method);
        if (request.form) {
            QHttpMultiPart* body = multipart(*request.form);
            reply_ = manager.sendCustomRequest(networkRequest, verb, body);
            body->setParent(reply_);
        } else {
            reply_ = manager.sendCustomRequest(networkRequest, verb, bytes(request.body));
        }
        QObject::connect(reply_, &QNetworkReply::finished, context_.get(),
                         [this] { guardEntry("HTTP completion", [this] { finished(); }); });
        timer_.setSingleShot(true);
        QObject::connect(&timer_, &QTimer::timeout, context_.get(), [this] {
            timedOut_ = true;
            if (reply_) reply_->abort();
        });
        const double ms = std::isfinite(request.timeoutSeconds) ? request.timeoutSeconds * 1000.0 : 0.0;
        if (ms > 0) timer_.start(int(std::min(ms, 2.0e9)));
    }

    ~QtHttpCall() override { cancel(); }

    void cancel() override {
        context_.reset();
        timer_.stop();
        done_ = nullptr;
        if (reply_) {
            QNetworkReply* reply = reply_;
            reply_ = nullptr;
            reply->abort();
            reply->deleteLater();
        }
    }

private:
    void finished() {
        timer_.stop();
        QNetworkReply* reply = reply_;
        reply_ = nullptr;
        reply->deleteLater();
        auto done = std::move(done_);
        done_ = nullptr;
        if (!done) return;
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (timedOut_) return done(Error{"http_timeout", "The request timed out"});
        if (!status.isValid()) return done(Error{"http_failed", reply->errorString().toStdString()});
        HttpResponse response;
        response.status = status.toInt();
        for (const auto& [name, value] : reply->rawHeaderPairs())
            response.headers.emplace_back(name.toStdString(), value.toStdString());
        const QByteArray body = reply->readAll();
        response.body.assign(body.constData(), std::size_t(body.size()));
        done(std::move(response));
    }

    HttpTransport::Completion done_;
    QNetworkReply* reply_ = nullptr;
    QTimer timer_;
    std::unique_ptr<QObject> context_;
    bool timedOut_ = false;
};

}  // namespace

QtHttpTransport::QtHttpTransport() : manager_(std::make_unique<QNetworkAccessManager>()) {}

QtHttpTransport::~QtHttpTransport() = default;

std::unique_ptr<HttpCall> QtHttpTransport::send(const HttpRequest& request, Completion done) {
    return std::make_unique<QtHttpCall>(*manager_, request, std::move(done));
}

}  // namespace osv
