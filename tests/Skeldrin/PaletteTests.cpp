#include "Skeldrin/model/Palette.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace skeldrin;

class PaletteTests : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void parsesColourTexts_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected"); // empty: no colour
        QTest::newRow("upper") << "#0A84FF" << "#0A84FF";
        QTest::newRow("lower") << "#0a84ff" << "#0A84FF";
        QTest::newRow("no hash") << "0A84FF" << "#0A84FF";
        QTest::newRow("plus sign counts as a character") << "+0A84F" << "#00A84F";
        QTest::newRow("minus zero") << "-00000" << "#000000";
        QTest::newRow("minus non-zero") << "-00001" << "";
        QTest::newRow("five digits") << "#0A84F" << "";
        QTest::newRow("seven digits") << "#0A84FF0" << "";
        QTest::newRow("empty") << "" << "";
        QTest::newRow("two hashes") << "##0A84FF" << "";
        QTest::newRow("not hex") << "#0A84FG" << "";
        QTest::newRow("space") << "#0A84F " << "";
        QTest::newRow("non-ASCII of six characters") << QString::fromUtf8("#0A84F\u00E9") << "";
    }
    void parsesColourTexts()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        const auto colour = colorFromHex(text);
        QCOMPARE(colour.has_value(), !expected.isEmpty());
        if (colour) QCOMPARE(hexString(*colour).value(), expected);
    }

    void formatsWithRoundingHalvesAway()
    {
        QCOMPARE(hexString(QColor::fromRgbF(0.5f, 0.f, 1.f)).value(), QStringLiteral("#8000FF"));
        QCOMPARE(hexString(QColor::fromRgbF(1.2f, -0.1f, 0.2f, 1.f)).value(), QStringLiteral("#FF0033"));
        QVERIFY(!hexString(QColor()).has_value());
    }

    void storedChoicesFallBackAndReset()
    {
        QTemporaryDir dir;
        AppSettings settings(dir.filePath(QStringLiteral("s.ini")));
        QSignalSpy changed(&settings, &AppSettings::changed);

        Palette::setColor(Status::waiting, QColor(1, 2, 3), settings);
        QCOMPARE(settings.value(QStringLiteral("color.waiting")).toString(), QStringLiteral("#010203"));
        QCOMPARE(Palette::color(Status::waiting, settings), QColor(1, 2, 3));
        QCOMPARE(changed.count(), 1);

        settings.setValue(QStringLiteral("color.multiStepWaiting"), QStringLiteral("nonsense"));
        QCOMPARE(Palette::color(Status::multiStepWaiting, settings), QColor(0xFF, 0x45, 0x3A));

        Palette::setColor(Status::ready, QColor(), settings); // no text form: dropped
        QVERIFY(!settings.contains(QStringLiteral("color.ready")));

        Palette::reset(settings);
        for (const Status s : allStatuses) QVERIFY(!settings.contains(Palette::key(s)));
        QCOMPARE(Palette::color(Status::waiting, settings), QColor(0xFF, 0xD6, 0x0A));
        QCOMPARE(Palette::key(Status::multiStepWaiting), QStringLiteral("color.multiStepWaiting"));
        QCOMPARE(Palette::color(Shade::waitingOnRuns(), settings), Palette::waitingOnRuns());
    }
};

QTEST_GUILESS_MAIN(PaletteTests)
#include "PaletteTests.moc"
