#pragma once

#include "app/ClipFile.h"
#include "core/ClipSettings.h"

#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>

// The observable state of the program's shell: what the tray, the status line and the dashboard
// draw from. Written on the main thread only. Every assignment emits `aboutToChange` before the
// value is stored and the field's own signal after, even when the value does not change (a
// repeated status line is news too). Four fields write through to the settings store.
class AppModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isClipping READ isClipping WRITE setIsClipping NOTIFY isClippingChanged)
    Q_PROPERTY(bool isBusy READ isBusy WRITE setIsBusy NOTIFY isBusyChanged)
    Q_PROPERTY(bool isSaving READ isSaving WRITE setIsSaving NOTIFY isSavingChanged)
    Q_PROPERTY(QString status READ status WRITE setStatus NOTIFY statusChanged)
    Q_PROPERTY(Tab tab READ tab WRITE setTab NOTIFY tabChanged)
    Q_PROPERTY(QList<ClipFile> clips READ clips WRITE setClips NOTIFY clipsChanged)
    Q_PROPERTY(QString mode READ modeText NOTIFY modeChanged)
    Q_PROPERTY(double clipLength READ clipLength WRITE setClipLength NOTIFY clipLengthChanged)
    Q_PROPERTY(bool captureMic READ captureMic WRITE setCaptureMic NOTIFY captureMicChanged)
    Q_PROPERTY(bool armOnLaunch READ armOnLaunch WRITE setArmOnLaunch NOTIFY armOnLaunchChanged)
    Q_PROPERTY(bool hotkeyWorksEverywhere READ hotkeyWorksEverywhere WRITE setHotkeyWorksEverywhere
                   NOTIFY hotkeyWorksEverywhereChanged)
    Q_PROPERTY(QString hotkeyName READ hotkeyName WRITE setHotkeyName NOTIFY hotkeyNameChanged)
    Q_PROPERTY(bool isCapturingHotkey READ isCapturingHotkey WRITE setIsCapturingHotkey NOTIFY
                   isCapturingHotkeyChanged)
    Q_PROPERTY(bool sharingAll READ sharingAll WRITE setSharingAll NOTIFY sharingAllChanged)
    Q_PROPERTY(QString packLink READ packLink WRITE setPackLink NOTIFY packLinkChanged)

public:
    enum class Tab { home, library, settings };
    Q_ENUM(Tab)

    // Reads the four settings and the display texts of the clip key and the lengths' keys once.
    explicit AppModel(QObject *parent = nullptr);

    bool isClipping() const { return m_isClipping; }
    void setIsClipping(bool value) { assign(m_isClipping, value, &AppModel::isClippingChanged); }
    bool isBusy() const { return m_isBusy; }
    void setIsBusy(bool value) { assign(m_isBusy, value, &AppModel::isBusyChanged); }
    bool isSaving() const { return m_isSaving; }
    void setIsSaving(bool value) { assign(m_isSaving, value, &AppModel::isSavingChanged); }
    QString status() const { return m_status; }
    void setStatus(const QString &value) { assign(m_status, value, &AppModel::statusChanged); }
    Tab tab() const { return m_tab; }
    void setTab(Tab value) { assign(m_tab, value, &AppModel::tabChanged); }
    QList<ClipFile> clips() const { return m_clips; }
    void setClips(const QList<ClipFile> &value) { assign(m_clips, value, &AppModel::clipsChanged); }

    RecordMode mode() const { return m_mode; }
    QString modeText() const { return m_mode.text(); }
    void setMode(RecordMode value);
    double clipLength() const { return m_clipLength; }
    void setClipLength(double seconds);
    bool captureMic() const { return m_captureMic; }
    void setCaptureMic(bool value);
    bool armOnLaunch() const { return m_armOnLaunch; }
    void setArmOnLaunch(bool value);

    bool hotkeyWorksEverywhere() const { return m_hotkeyWorksEverywhere; }
    void setHotkeyWorksEverywhere(bool value)
    {
        assign(m_hotkeyWorksEverywhere, value, &AppModel::hotkeyWorksEverywhereChanged);
    }
    QString hotkeyName() const { return m_hotkeyName; }
    void setHotkeyName(const QString &value)
    {
        assign(m_hotkeyName, value, &AppModel::hotkeyNameChanged);
    }
    bool isCapturingHotkey() const { return m_isCapturingHotkey; }
    void setIsCapturingHotkey(bool value)
    {
        assign(m_isCapturingHotkey, value, &AppModel::isCapturingHotkeyChanged);
    }

    // The key of each length that has one, by its length in seconds ("Ctrl+F9"); the length whose
    // key is being captured in the window, 0 for none (the clip key's capture is
    // isCapturingHotkey).
    static QMap<int, QString> storedLengthKeyNames();
    QMap<int, QString> lengthKeyNames() const { return m_lengthKeyNames; }
    void setLengthKeyNames(const QMap<int, QString> &value)
    {
        assign(m_lengthKeyNames, value, &AppModel::lengthKeyNamesChanged);
    }
    int capturingLength() const { return m_capturingLength; }
    void setCapturingLength(int seconds)
    {
        assign(m_capturingLength, seconds, &AppModel::capturingLengthChanged);
    }
    // The clip the trim view shows; empty while it is closed.
    QUrl trimClip() const { return m_trimClip; }
    void setTrimClip(const QUrl &value) { assign(m_trimClip, value, &AppModel::trimClipChanged); }

    // Sharing: the link of each clip uploaded since launch (by clip URL), uploads in flight,
    // the share-all run and the last folder link (empty: none).
    QMap<QUrl, QString> shares() const { return m_shares; }
    void setShares(const QMap<QUrl, QString> &value)
    {
        assign(m_shares, value, &AppModel::sharesChanged);
    }
    QSet<QUrl> uploading() const { return m_uploading; }
    void setUploading(const QSet<QUrl> &value)
    {
        assign(m_uploading, value, &AppModel::uploadingChanged);
    }
    bool sharingAll() const { return m_sharingAll; }
    void setSharingAll(bool value) { assign(m_sharingAll, value, &AppModel::sharingAllChanged); }
    QString packLink() const { return m_packLink; }
    void setPackLink(const QString &value)
    {
        assign(m_packLink, value, &AppModel::packLinkChanged);
    }

signals:
    // Before every assignment, for observers that redraw the whole view.
    void aboutToChange();

    void isClippingChanged();
    void isBusyChanged();
    void isSavingChanged();
    void statusChanged();
    void tabChanged();
    void clipsChanged();
    void modeChanged();
    void clipLengthChanged();
    void captureMicChanged();
    void armOnLaunchChanged();
    void hotkeyWorksEverywhereChanged();
    void hotkeyNameChanged();
    void isCapturingHotkeyChanged();
    void lengthKeyNamesChanged();
    void capturingLengthChanged();
    void trimClipChanged();
    void sharesChanged();
    void uploadingChanged();
    void sharingAllChanged();
    void packLinkChanged();

private:
    template<typename T, typename V> void assign(T &field, V &&value, void (AppModel::*changed)())
    {
        emit aboutToChange();
        field = std::forward<V>(value);
        emit(this->*changed)();
    }

    bool m_isClipping = false;
    bool m_isBusy = false;
    bool m_isSaving = false;
    QString m_status;
    Tab m_tab = Tab::home;
    QList<ClipFile> m_clips;
    RecordMode m_mode;
    double m_clipLength;
    bool m_captureMic;
    bool m_armOnLaunch;
    bool m_hotkeyWorksEverywhere = false;
    QString m_hotkeyName;
    bool m_isCapturingHotkey = false;
    QMap<int, QString> m_lengthKeyNames;
    int m_capturingLength = 0;
    QUrl m_trimClip;
    QMap<QUrl, QString> m_shares;
    QSet<QUrl> m_uploading;
    bool m_sharingAll = false;
    QString m_packLink;
};
