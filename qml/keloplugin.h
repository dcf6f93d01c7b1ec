#pragma once

#include <QQmlExtensionPlugin>

/// The QML module Kelo 1.0: KeloTerminal, its models and the "kelo-qr" image provider.
class KeloPlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QQmlExtensionInterface_iid)
public:
    void registerTypes(const char* uri) override;
    void initializeEngine(QQmlEngine* engine, const char* uri) override;
};
