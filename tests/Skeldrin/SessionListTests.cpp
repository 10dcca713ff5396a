#include <QtTest>
class SessionListTests : public QObject { Q_OBJECT };
QTEST_GUILESS_MAIN(SessionListTests)
#include "SessionListTests.moc"
