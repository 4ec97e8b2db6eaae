#pragma once

#include "app/AppLink.h"

#include <QObject>
#include <QStringList>

class AppModel;
class ArmingController;
class ClipSaver;

// Acts on the vantrel:// links a launch was given or a later launch handed over (see AppLink):
// start, stop and clip go to the arming and the save, open asks for the window, and a sign-in
// link only hurries the sign-in this program is waiting on. Links it does not know are ignored.
// Main thread only.
class LinkRouter : public QObject
{
    Q_OBJECT

public:
    LinkRouter(ArmingController &arming, ClipSaver &saver, AppModel &model,
               QObject *parent = nullptr);

    // Each link in order.
    void follow(const QStringList &links);
    void follow(const AppLink &link);

signals:
    void windowWanted();

private:
    void hurrySignIn(const QString &code);

    ArmingController &m_arming;
    ClipSaver &m_saver;
    AppModel &m_model;
    // Waits for the end of a sign-in that a link hurried, to say how it ended.
    QMetaObject::Connection m_linkedSignIn;
};
