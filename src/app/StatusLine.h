#pragma once

#include <QLabel>

class AppModel;

// The one status line, as every page shows it: the model's status, wrapped, selectable (it may
// hold a path to copy, when a folder or a clip could not be opened).
class StatusLine : public QLabel
{
    Q_OBJECT

public:
    StatusLine(AppModel &model, const QString &objectName, QWidget *parent = nullptr);
};
