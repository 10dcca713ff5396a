#include "Skeldrin/model/Palette.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace skeldrin;

class PaletteTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void parsesAndFormatsColourTexts()
    {
        // The text, then its colour or empty when it is none. One sign may lead, and "-0" is zero.
        const char* const cases[][2] = {{"#0A84FF", "#0A84FF"}, {"#0a84ff", "#0A84FF"}, {"0A84FF", "#0A84FF"},
                                        {"+0A84F", "#00A84F"},  {"-00000", "#000000"},  {"-00001", ""},
                                        {"#0A84F", ""},         {"#0A84FG", ""}};
        for (const auto& [text, expected] : cases) {
            const auto colour = colorFromHex(QString::fromLatin1(text));
            QCOMPARE(hexString(colour.value_or(QColor())).value_or(QString()), QString::fromLatin1(expected));
        }
        // Components round halves away and are clamped.
        QCOMPARE(hexString(QColor::fromRgbF(0.5f, 0.f, 1.f)).value(), QStringLiteral("#8000FF"));
        QCOMPARE(hexString(QColor::fromRgbF(1.2f, -0.1f, 0.2f, 1.f)).value(), QStringLiteral("#FF0033"));
    }

    void storedNonsenseFallsBackAndAColourWithoutTextIsNotStored()
    {
        QTemporaryDir dir;
        AppSettings settings(dir.filePath("s.ini"));
        settings.setValue("color.multiStepWaiting", "nonsense");
        QCOMPARE(Palette::color(Status::multiStepWaiting, settings), QColor(0xFF, 0x45, 0x3A));
        Palette::setColor(Status::ready, QColor(), settings);
        QVERIFY(!settings.contains("color.ready"));
    }
};

QTEST_GUILESS_MAIN(PaletteTests)
#include "PaletteTests.moc"
