#include "app/StatusLine.h"

#include "app/AppModel.h"
#include "app/DashboardStyle.h"
#include "core/Palette.h"

StatusLine::StatusLine(AppModel &model, const QString &objectName, QWidget *parent)
    : QLabel(parent)
{
    setObjectName(objectName);
    setTextFormat(Qt::PlainText);
    setFont(DashboardStyle::font(13));
    DashboardStyle::setTextColor(this, Palette::white(0.7));
    setWordWrap(true);
    setTextInteractionFlags(Qt::TextSelectableByMouse);
    setText(model.status());
    connect(&model, &AppModel::statusChanged, this, [this, &model] { setText(model.status()); });
}
