#include <QtTest>
class CliTests : public QObject { Q_OBJECT };
QTEST_GUILESS_MAIN(CliTests)
#include "CliTests.moc"
