#include <QtTest>
class HeadlinerTests : public QObject { Q_OBJECT };
QTEST_GUILESS_MAIN(HeadlinerTests)
#include "HeadlinerTests.moc"
