#pragma once

#include <QDesktopServices>
#include <QList>
#include <QObject>
#include <QUrl>

#include <functional>

// Stands in for the browser, and for whatever else the desktop would start for an address: every
// page (or file, or link of another program) the program opens lands here instead.
class BrowserCatcher : public QObject
{
    Q_OBJECT
public:
    BrowserCatcher()
    {
        for (const char *scheme : schemes)
            QDesktopServices::setUrlHandler(QString::fromLatin1(scheme), this, "open");
    }
    ~BrowserCatcher() override
    {
        for (const char *scheme : schemes)
            QDesktopServices::unsetUrlHandler(QString::fromLatin1(scheme));
    }

    QList<QUrl> opened;
    // Called with each page as it opens (the test's user approving a sign-in, say).
    std::function<void(const QUrl &)> onOpen;

private:
    static constexpr const char *schemes[] = {"http",       "https",   "file", "data",
                                              "javascript", "vantrel", "smb"};

public slots:
    void open(const QUrl &url)
    {
        opened << url;
        if (onOpen)
            onOpen(url);
    }
};
