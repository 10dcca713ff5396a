#include <QtTest>
class SessionsModelTests : public QObject { Q_OBJECT };
QTEST_GUILESS_MAIN(SessionsModelTests)
#include "SessionsModelTests.moc"
