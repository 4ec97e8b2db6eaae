#pragma once

#include "input/KeyInput.h"

#include <QObject>
#include <QString>

#include <functional>

class QKeyEvent;

// The clip key path for the program's own windows: an application-wide event filter on the key
// events that Qt delivers to our windows. Each key is seen once, when it reaches its window
// (before any widget), so the handler may swallow it there.
//
// Main thread only.
class WindowKeyFilter : public QObject
{
    Q_OBJECT

public:
    struct Key
    {
        KeyInput input;
        // What the key types, layout-aware and without the effect of Ctrl or Alt: names letter
        // and digit keys ("A" for the A key with Ctrl held). Empty for keys that type nothing.
        QString characters;
    };
    // Returns true to swallow the key.
    using Handler = std::function<bool(const Key &key)>;
    // Returns true to claim a key that a shortcut would otherwise take (capture mode wants every
    // key as a plain press).
    using ShortcutClaim = std::function<bool(const Key &key)>;

    WindowKeyFilter(Handler handler, ShortcutClaim claim);

    // False when there is no application object yet.
    bool install();
    void remove();
    bool isInstalled() const { return m_installed; }

    static Key keyOf(const QKeyEvent &event);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    const Handler m_handler;
    const ShortcutClaim m_claim;
    bool m_installed = false;
};
