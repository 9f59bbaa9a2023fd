#pragma once

// The settings screen: each stored setting read and written under its stored key, applied
// as a launch applies it (written, loaded, saved back), with a refusal that says why for a
// value that does not fit; the API keys through the SecretStore, shown only as present or
// absent; the sound devices, listed off the main thread; the model of each job with its
// price and problems.
//
// Thread contract: main thread.

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>
#include <optional>
#include <string>

#include "settings/TranslatorSettings.h"

namespace osv {

class SettingsModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(int revision READ revision NOTIFY changed)
    Q_PROPERTY(QString message READ message NOTIFY messageChanged)
    Q_PROPERTY(bool messageIsError READ messageIsError NOTIFY messageChanged)
    Q_PROPERTY(QStringList microphones READ microphones NOTIFY devicesChanged)
    Q_PROPERTY(QStringList outputs READ outputs NOTIFY devicesChanged)
    Q_PROPERTY(QString devicesStatus READ devicesStatus NOTIFY devicesChanged)
    Q_PROPERTY(QVariantList modelRows READ modelRows NOTIFY changed)
    Q_PROPERTY(QString modelSummary READ modelSummary NOTIFY changed)
    Q_PROPERTY(QVariantList endpoints READ endpoints CONSTANT)

public:
    struct Stores {
        UserDefaults& defaults;
        SecretStore& secrets;
        SettingsStore& store;
        std::optional<std::string> environmentKey;
    };

    SettingsModel(Stores stores, TranslatorSettings& settings, QObject* parent = nullptr);
    ~SettingsModel() override;

    // Called after every applied change, with the settings as they now stand.
    std::function<void()> onApplied;

    int revision() const { return revision_; }
    QString message() const { return message_; }
    bool messageIsError() const { return messageIsError_; }
    QStringList microphones() const { return microphones_; }
    QStringList outputs() const { return outputs_; }
    QString devicesStatus() const { return devicesStatus_; }
    QVariantList modelRows() const;
    QString modelSummary() const;
    QVariantList endpoints() const;

    // The value stored under `key` as QML edits it: text, number or boolean.
    Q_INVOKABLE QVariant value(const QString& key) const;
    // [{value, label}] of a setting with fixed choices.
    Q_INVOKABLE QVariantList choices(const QString& key) const;
    // Applies one value; false (and `message` says why) when it does not fit.
    Q_INVOKABLE bool setValue(const QString& key, const QVariant& value);
    Q_INVOKABLE bool setModel(const QString& job, const QString& model);

    // vendor: "openai", "google", "gemini", "jev".
    Q_INVOKABLE bool keyPresent(const QString& vendor) const;
    Q_INVOKABLE bool setKey(const QString& vendor, const QString& key);
    Q_INVOKABLE bool clearKey(const QString& vendor);
    Q_INVOKABLE QString keyLabel(const QString& vendor) const;

    Q_INVOKABLE void refreshDevices();

    bool hasOpenAIKey() const;

signals:
    void changed();
    void messageChanged();
    void devicesChanged();
    void keysChanged();

private:
    void reload();
    void say(const QString& text, bool error);
    bool storeKey(const QString& vendor, const std::string& key);

    Stores stores_;
    TranslatorSettings& settings_;
    int revision_ = 0;
    QString message_;
    bool messageIsError_ = false;
    QStringList microphones_;
    QStringList outputs_;
    QString devicesStatus_;
    bool listing_ = false;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace osv
