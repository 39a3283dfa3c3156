#include "uifixture.h"

#include <QApplication>
#include <QDir>
#include <QImage>
#include <QMainWindow>
#include <QMenu>
#include <QPalette>
#include <QStyleFactory>
#include <QTreeView>

namespace
{

QPalette darkPalette()
{
    QPalette p;
    const QColor window(0x2b, 0x2d, 0x30), base(0x1e, 0x1f, 0x22), text(0xe6, 0xe6, 0xe6);
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, base);
    p.setColor(QPalette::AlternateBase, window);
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::Button, window);
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::Light, QColor(0x4a, 0x4d, 0x52));
    p.setColor(QPalette::Midlight, QColor(0x3c, 0x3f, 0x44));
    p.setColor(QPalette::Mid, QColor(0x5a, 0x5d, 0x63));
    p.setColor(QPalette::Dark, QColor(0x70, 0x73, 0x79));
    p.setColor(QPalette::Shadow, Qt::black);
    p.setColor(QPalette::Highlight, QColor(0x35, 0x74, 0xf0));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::PlaceholderText, QColor(0x9a, 0x9d, 0xa3));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x6b, 0x6e, 0x74));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x6b, 0x6e, 0x74));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x6b, 0x6e, 0x74));
    return p;
}

} // namespace

// Renders the window with a realistic, checked and partly posted day in a light and a dark palette, so a
// reviewer can look at build/snapshots/worklogs-*.png.
class SnapshotTest : public WindowFixture
{
};

TEST_F(SnapshotTest, WritesLightAndDarkSnapshotsOfARealisticDay)
{
    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    const QDate day(2026, 3, 2);
    m_controller->setReviewDay(day);
    openChecked(uitest::realisticDay(day));
    // Post the first issue so the day shows every kind of status.
    for (int i = 0; i < model()->rows().size(); ++i) {
        const QModelIndex box = model()->indexOfRow(i, ReviewModel::IncludeColumn);
        const bool keep = model()->row(i).value(QStringLiteral("issue")).toString() == QStringLiteral("ABC-1");
        if (box.flags() & Qt::ItemIsUserCheckable)
            model()->setData(box, keep ? Qt::Checked : Qt::Unchecked, Qt::CheckStateRole);
    }
    m_controller->post();
    ASSERT_TRUE(waitIdle());
    m_controller->checkJira();
    ASSERT_TRUE(waitIdle());
    // Tick the rest again, as a user about to post would.
    for (int i = 0; i < model()->rows().size(); ++i) {
        const QModelIndex box = model()->indexOfRow(i, ReviewModel::IncludeColumn);
        if (box.flags() & Qt::ItemIsUserCheckable)
            model()->setData(box, Qt::Checked, Qt::CheckStateRole);
    }
    m_controller->window()->resize(1180, 620);
    m_controller->tree()->setCurrentIndex(indexFor(QStringLiteral("OPS-7 On-call handover"), 0));

    const QString folder = QStringLiteral(HOURLOOM_BINARY_DIR "/snapshots");
    ASSERT_TRUE(QDir().mkpath(folder));
    const QPalette light = QApplication::palette();
    for (const auto &[name, palette] : {std::pair {"light", light}, std::pair {"dark", darkPalette()}}) {
        QApplication::setPalette(palette);
        QApplication::processEvents();
        const QString path = folder + QStringLiteral("/worklogs-%1.png").arg(QLatin1String(name));
        ASSERT_TRUE(m_controller->writeSnapshot(path));
        const QImage image(path);
        ASSERT_FALSE(image.isNull());
        EXPECT_GE(image.width(), 1000);
        // The tree's background follows the palette: light stays light, dark stays dark.
        const QColor sample = image.pixelColor(image.width() / 2, image.height() - 90);
        if (QLatin1String(name) == QLatin1String("dark"))
            EXPECT_LT(sample.lightness(), 128);
        else
            EXPECT_GT(sample.lightness(), 128);
    }
    QApplication::setPalette(light);
}
