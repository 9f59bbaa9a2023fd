#include "screens/SettingsModel.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QVariantMap>

#include <algorithm>
#include <cmath>
#include <map>
#include <thread>

#include "core/Text.h"
#include "platform/pulse/PulseCapture.h"
#include "services/ServiceEndpoints.h"
#include "settings/ModelWiring.h"

namespace osv {

namespace {

QString qs(std::string_view s) { return QString::fromUtf8(s.data(), qsizetype(s.size())); }

struct Choice {
    const char* value;
    const char* label;
};

const std::vector<Choice>* choicesOf(std::string_view key) {
    static const std::map<std::string_view, std::vector<Choice>> table{
        {"capture_mode", {{"mixed", "电脑声音和麦克风"}, {"systemAudio", "电脑声音"}, {"microphone", "麦克风"}}},
        {"recognition_language", {{"auto", "自动"}, {"chinese", "中文"}, {"japanese", "日语"}}},
        {"target_language", {{"simplifiedChinese", "简体中文"}, {"japanese", "日语"}}},
        {"perspective", {{"shared", "共用（两边都在看）"}, {"solo", "只有我在看"}}},
        {"live_engine", {{"realtimeTranslation", "实时同传"}, {"chunkedFallback", "切片（兼容）"}}},
        {"caption_text_size", {{"small", "小"}, {"medium", "中"}, {"large", "大"}}},
        {"skin", {{"indigo", "靛蓝"}, {"vermilion", "朱红"}, {"pine", "松绿"}, {"night", "夜间"}}},
    };
    const auto found = table.find(key);
    return found == table.end() ? nullptr : &found->second;
}

const SettingKey* keyNamed(std::string_view name) {
    for (const auto& k : settingKeys())
        if (k.key == name) return &k;
    return nullptr;
}

std::optional<SecretLocation> locationOf(const QString& vendor) {
    if (vendor == QLatin1String("openai")) return SecretLocation::openAI();
    if (vendor == QLatin1String("google")) return SecretLocation::google();
    if (vendor == QLatin1String("gemini")) return SecretLocation::gemini();
    if (vendor == QLatin1String("jev")) return SecretLocation::jev();
    return std::nullopt;
}

}  // namespace

SettingsModel::SettingsModel(Stores stores, TranslatorSettings& settings, QObject* parent)
    : QObject(parent), stores_(std::move(stores)), settings_(settings) {}

SettingsModel::~SettingsModel() { *alive_ = false; }

QVariant SettingsModel::value(const QString& key) const {
    const auto stored = stores_.defaults.object(key.toStdString());
    if (!stored) return {};
    if (const auto* s = std::get_if<std::string>(&*stored)) return QString::fromStdString(*s);
    if (const auto* d = std::get_if<double>(&*stored)) return *d;
    if (const auto* b = std::get_if<bool>(&*stored)) return *b;
    return {};
}

QVariantList SettingsModel::choices(const QString& key) const {
    QVariantList out;
    if (const auto* list = choicesOf(key.toStdString()))
        for (const auto& c : *list)
            out.push_back(QVariantMap{{"value", QString::fromUtf8(c.value)}, {"label", QString::fromUtf8(c.label)}});
    return out;
}

bool SettingsModel::setValue(const QString& keyText, const QVariant& input) {
    const std::string name = keyText.toStdString();
    const SettingKey* key = keyNamed(name);
    if (!key || key->key == SecretStore::kLegacyOpenAIDefaultsKey || key->type == SettingType::data) {
        say(QStringLiteral("不能在这里修改“%1”。").arg(keyText), true);
        return false;
    }
    UserDefaults::Value value;
    switch (key->type) {
        case SettingType::text: {
            const QString text = input.toString();
            if (const auto* list = choicesOf(name)) {
                const bool known = std::any_of(list->begin(), list->end(),
                                               [&](const Choice& c) { return text == QLatin1String(c.value); });
                if (!known) {
                    say(QStringLiteral("“%1”不是可选的值。").arg(text), true);
                    return false;
                }
            }
            value = text.toStdString();
            break;
        }
        case SettingType::number: {
            bool ok = false;
            const double number = input.toString().trimmed().toDouble(&ok);
            if (!ok || !std::isfinite(number)) {
                say(QStringLiteral("请输入数字，“%1”不是数字。").arg(input.toString()), true);
                return false;
            }
            if (name == "chunk_seconds" && (number < 0.5 || number > 8.0)) {
                say(QStringLiteral("切片秒数要在 0.5 到 8 之间。"), true);
                return false;
            }
            if (name != "chunk_seconds" && number < 0) {
                say(QStringLiteral("这里不能是负数。"), true);
                return false;
            }
            value = number;
            break;
        }
        case SettingType::boolean:
            value = input.toBool();
            break;
        case SettingType::baseURL: {
            const std::string text = std::string(text::trimmed(input.toString().toStdString()));
            if (!text.empty() && !isServiceBaseURL(text)) {
                say(QStringLiteral("“%1”不是 http 或 https 网址。").arg(input.toString()), true);
                return false;
            }
            value = text;
            break;
        }
        case SettingType::data:
            return false;
    }
    stores_.defaults.set(name, std::move(value));
    reload();
    return messageIsError_ ? false : true;
}

bool SettingsModel::setModel(const QString& jobText, const QString& model) {
    const auto job = modelJobFromRaw(jobText.toStdString());
    if (!job) return false;
    settings_.models.set(std::string(text::trimmed(model.toStdString())), *job, std::nullopt);
    settings_.models.saveToDefaults(stores_.defaults);
    reload();
    return !messageIsError_;
}

void SettingsModel::reload() {
    // As at launch, then saved back: clamping and migrations take effect, the keys stay.
    settings_ = stores_.store.load(stores_.environmentKey);
    stores_.store.loadStoredKey(settings_);
    const auto report = stores_.store.save(settings_);
    if (!report.errors.empty()) say(QString::fromStdString(report.errors.front()), true);
    else say(QStringLiteral("已保存。"), false);
    ++revision_;
    emit changed();
    if (onApplied) onApplied();
}

QVariantList SettingsModel::modelRows() const {
    QVariantList out;
    for (const auto& r : ModelWiring::rows(settings_, {hasOpenAIKey(), !settings_.geminiAPIKey.empty()})) {
        out.push_back(QVariantMap{{"job", qs(rawValue(r.job))},
                                  {"label", qs(label(r.job))},
                                  {"model", QString::fromStdString(r.model)},
                                  {"vendor", QString::fromStdString(r.vendorName)},
                                  {"price", r.price ? QString::fromStdString(*r.price) : QString()},
                                  {"problem", r.problem ? QString::fromStdString(*r.problem) : QString()},
                                  {"overridden", r.isOverridden}});
    }
    return out;
}

QString SettingsModel::modelSummary() const {
    return QString::fromStdString(
        ModelWiring::summary(ModelWiring::rows(settings_, {hasOpenAIKey(), !settings_.geminiAPIKey.empty()})));
}

QVariantList SettingsModel::endpoints() const {
    const ServiceEndpoints e = ServiceEndpoints::fromEnvironment();
    return {QVariantMap{{"label", "OpenAI"}, {"url", QString::fromStdString(e.openAI)}, {"variable", "OSV_OPENAI_BASE_URL"}},
            QVariantMap{{"label", "Gemini"}, {"url", QString::fromStdString(e.gemini)}, {"variable", "OSV_GEMINI_BASE_URL"}},
            QVariantMap{{"label", "Google 语音"}, {"url", QString::fromStdString(e.googleTTS)}, {"variable", "OSV_GOOGLE_TTS_BASE_URL"}},
            QVariantMap{{"label", "Jev"}, {"url", QString::fromStdString(e.jev)}, {"variable", "OSV_JEV_BASE_URL"}}};
}

bool SettingsModel::hasOpenAIKey() const { return !text::isBlank(settings_.apiKey); }

bool SettingsModel::keyPresent(const QString& vendor) const {
    if (vendor == QLatin1String("openai")) return hasOpenAIKey();
    if (vendor == QLatin1String("google")) return !settings_.googleAPIKey.empty();
    if (vendor == QLatin1String("gemini")) return !settings_.geminiAPIKey.empty();
    if (vendor == QLatin1String("jev")) return !settings_.jevAPIKey.empty();
    return false;
}

QString SettingsModel::keyLabel(const QString& vendor) const {
    if (vendor == QLatin1String("openai")) return QStringLiteral("OpenAI");
    if (vendor == QLatin1String("google")) return QStringLiteral("Google 语音");
    if (vendor == QLatin1String("gemini")) return QStringLiteral("Gemini");
    if (vendor == QLatin1String("jev")) return QStringLiteral("Jev");
    return vendor;
}

bool SettingsModel::storeKey(const QString& vendor, const std::string& key) {
    const auto location = locationOf(vendor);
    if (!location) return false;
    if (!stores_.secrets.setAPIKey(key, *location)) {
        say(QStringLiteral("%1 密钥没能保存（%2）。").arg(keyLabel(vendor), QString::fromStdString(stores_.secrets.lastStatusText())),
            true);
        return false;
    }
    // The store is the truth: read everything back as a launch does.
    settings_ = stores_.store.load(stores_.environmentKey);
    stores_.store.loadStoredKey(settings_);
    if (vendor == QLatin1String("openai") && key.empty()) settings_.apiKey.clear();
    ++revision_;
    emit changed();
    emit keysChanged();
    if (onApplied) onApplied();
    return true;
}

bool SettingsModel::setKey(const QString& vendor, const QString& key) {
    const std::string trimmed(text::trimmed(key.toStdString()));
    if (trimmed.empty()) {
        say(QStringLiteral("密钥是空的。要删除已保存的密钥，请用“清除”。"), true);
        return false;
    }
    if (trimmed.find_first_of(" \t\r\n") != std::string::npos) {
        say(QStringLiteral("密钥里不能有空格或换行，请检查粘贴的内容。"), true);
        return false;
    }
    if (!storeKey(vendor, trimmed)) return false;
    const bool inFile = stores_.secrets.lastPlacement() == SecretStore::Placement::fallbackFile;
    say(inFile ? QStringLiteral("%1 密钥已保存（系统密钥环不可用，存放在仅本人可读的文件中）。").arg(keyLabel(vendor))
               : QStringLiteral("%1 密钥已保存到系统密钥环。").arg(keyLabel(vendor)),
        false);
    return true;
}

bool SettingsModel::clearKey(const QString& vendor) {
    if (!storeKey(vendor, std::string())) return false;
    say(QStringLiteral("%1 密钥已清除。").arg(keyLabel(vendor)), false);
    return true;
}

void SettingsModel::refreshDevices() {
    if (listing_) return;
    listing_ = true;
    devicesStatus_ = QStringLiteral("正在读取音频设备…");
    emit devicesChanged();
    QPointer<SettingsModel> self(this);
    std::thread([self] {
        auto devices = listAudioDevices();
        QMetaObject::invokeMethod(
            qApp, [self, devices = std::move(devices)]() mutable {
                if (!self) return;
                self->listing_ = false;
                self->microphones_.clear();
                self->outputs_.clear();
                if (!devices) {
                    self->devicesStatus_ = QString::fromStdString(devices.error().message);
                } else {
                    for (const auto& d : devices->sources) {
                        if (d.isMonitor) continue;
                        QString line = QString::fromStdString(d.description.empty() ? d.name : d.description);
                        if (d.name == devices->defaultSource) line += QStringLiteral("（默认）");
                        if (d.isEchoCancel) line += QStringLiteral("（回声消除）");
                        self->microphones_ << line;
                    }
                    for (const auto& d : devices->sinks) {
                        QString line = QString::fromStdString(d.description.empty() ? d.name : d.description);
                        if (d.name == devices->defaultSink) line += QStringLiteral("（默认）");
                        self->outputs_ << line;
                    }
                    self->devicesStatus_ = QStringLiteral("电脑声音取自默认输出，麦克风取自默认输入；在系统声音设置里切换设备，采集会跟着走。");
                }
                emit self->devicesChanged();
            },
            Qt::QueuedConnection);
    }).detach();
}

void SettingsModel::say(const QString& text, bool error) {
    message_ = text;
    messageIsError_ = error;
    emit messageChanged();
}

}  // namespace osv
