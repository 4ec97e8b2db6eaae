#pragma once

#include <QDesktopServices>
#include <QList>
#include <QObject>
#include <QUrl>

#include <functional>

// Stands in for the browser: every page the program opens lands here instead of starting one.
class BrowserCatcher : public QObject
{
    Q_OBJECT
public:
    BrowserCatcher()
    {
        QDesktopServices::setUrlHandler(QStringLiteral("http"), this, "open");
        QDesktopServices::setUrlHandler(QStringLiteral("https"), this, "open");
    }
    ~BrowserCatcher() override
    {
        QDesktopServices::unsetUrlHandler(QStringLiteral("http"));
        QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
    }

    QList<QUrl> opened;
    // Called with each page as it opens (the test's user approving a sign-in, say).
    std::function<void(const QUrl &)> onOpen;

public slots:
    void open(const QUrl &url)
    {
        opened << url;
        if (onOpen)
            onOpen(url);
    }
};
