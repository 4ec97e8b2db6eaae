#include "support/WidgetTesting.h"

#include <QDir>
#include <QTest>

void clickOn(QWidget *widget, QPoint at)
{
    ASSERT_NE(widget, nullptr);
    ASSERT_TRUE(widget->isVisible()) << widget->objectName().toStdString() << " is hidden";
    ASSERT_TRUE(widget->isEnabled()) << widget->objectName().toStdString() << " is disabled";
    QTest::mouseClick(widget, Qt::LeftButton, {}, at.isNull() ? widget->rect().center() : at);
}

void saveScreen(QWidget *widget, const QString &name)
{
    const QString folder = qEnvironmentVariable("VANTREL_SCREENSHOT_DIR");
    if (folder.isEmpty() || !widget)
        return;
    QDir().mkpath(folder);
    // Let queued layouts and paints settle first.
    waitUntil([] { return false; }, 150);
    widget->grab().save(folder + QLatin1Char('/') + name + QStringLiteral(".png"));
}
