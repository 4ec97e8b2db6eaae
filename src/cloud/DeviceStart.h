#pragma once

#include <QString>
#include <QUrl>

// The service's answer to "let me sign in": a one-time code and the page where the user
// approves it in the browser.
struct DeviceStart
{
    QString code;
    QUrl url;
};
