#pragma once

#include <QString>
#include <QUrl>

// A clip the service now hosts: its id there, its public page (the link people share) and the
// name the service shows for it.
struct SharedClip
{
    QString id;
    QUrl url;
    QString name;
};
