#include "ConfigurationManager.h"
#include "ConfigurationManager_p.h"

#include "MessageCapture.h"

#include <QtCore/QJsonArray>
#include <QtTest/QtTest>

class JsonPathTest : public QObject
{
    Q_OBJECT

private slots:
    void emptyPathReadsWholeObject();
    void interruptedWalkIsNullMissingLastKeyIsUndefined();
    void arraysAreLeavesNotContainers();
    void splitDropsEmptyComponents();
    void keysAreCaseSensitive();
    void writeCreatesEveryLevel();
    void writeReplacesNonObjectOnTheWay();
    void writeWithDoubleDotWritesNested();
    void writeKeepsSiblings();
    void writeNullKeepsKeyPresent();
    void listFormTakesDotsLiterally();
    void listFormReturnsChangedObject();
    void pathsWithoutComponentsAreHarmless();
    void pathAccessLogsNothing();
    void parseArrayIndex_data();
    void parseArrayIndex();
};

static QJsonObject sample()
{
    return QJsonObject {{QStringLiteral("n"), 5},
        {QStringLiteral("list"), QJsonArray {1, QJsonObject {{QStringLiteral("b"), 2}}}},
        {QStringLiteral("a"), QJsonObject {{QStringLiteral("x"), 1}}}};
}

void JsonPathTest::emptyPathReadsWholeObject()
{
    const QJsonObject object = sample();
    QCOMPARE(ConfigurationManager::valWithXPath(object, QString()), QJsonValue(object));
}

void JsonPathTest::interruptedWalkIsNullMissingLastKeyIsUndefined()
{
    const QJsonObject object = sample();
    const QJsonValue throughNumber = ConfigurationManager::valWithXPath(object, QStringLiteral("n.b"));
    QCOMPARE(throughNumber.type(), QJsonValue::Null);
    const QJsonValue missingLast = ConfigurationManager::valWithXPath(object, QStringLiteral("a.b"));
    QCOMPARE(missingLast.type(), QJsonValue::Undefined);
    const QJsonValue missingFirst = ConfigurationManager::valWithXPath(object, QStringLiteral("zz.b"));
    QCOMPARE(missingFirst.type(), QJsonValue::Null);
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("a.x")).toInt(), 1);
}

void JsonPathTest::arraysAreLeavesNotContainers()
{
    const QJsonObject object = sample();
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("list")), object.value(QStringLiteral("list")));
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("list.0")).type(), QJsonValue::Null);
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("list[0].b")).type(), QJsonValue::Null);

    QJsonObject withBracketKey = object;
    withBracketKey.insert(QStringLiteral("list[0]"), QJsonObject {{QStringLiteral("b"), 7}});
    // Brackets have no meaning: "list[0]" is an ordinary key.
    QCOMPARE(ConfigurationManager::valWithXPath(withBracketKey, QStringLiteral("list[0].b")).toInt(), 7);
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("a[0].x")).type(), QJsonValue::Null);
}

void JsonPathTest::splitDropsEmptyComponents()
{
    const QJsonObject object = sample();
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("a..x")).toInt(), 1);
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral(".a.x.")).toInt(), 1);
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral(".n.")).toInt(), 5);
}

void JsonPathTest::keysAreCaseSensitive()
{
    const QJsonObject object = sample();
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("A.x")).type(), QJsonValue::Null);
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("a.X")).type(), QJsonValue::Undefined);
}

void JsonPathTest::writeCreatesEveryLevel()
{
    QJsonObject object;
    ConfigurationManager::setValWithXPath(object, QStringLiteral("a.b.c"), QJsonValue(3));
    const QJsonObject expected {
        {QStringLiteral("a"), QJsonObject {{QStringLiteral("b"), QJsonObject {{QStringLiteral("c"), 3}}}}}};
    QCOMPARE(object, expected);
}

void JsonPathTest::writeReplacesNonObjectOnTheWay()
{
    QJsonObject object {{QStringLiteral("a"), 5}};
    ConfigurationManager::setValWithXPath(object, QStringLiteral("a.b"), QJsonValue(QStringLiteral("v")));
    QCOMPARE(object, (QJsonObject {{QStringLiteral("a"), QJsonObject {{QStringLiteral("b"), QStringLiteral("v")}}}}));

    QJsonObject withArray {{QStringLiteral("a"), QJsonArray {1, 2}}};
    ConfigurationManager::setValWithXPath(withArray, QStringLiteral("a.b"), QJsonValue(1));
    QCOMPARE(withArray, (QJsonObject {{QStringLiteral("a"), QJsonObject {{QStringLiteral("b"), 1}}}}));
}

void JsonPathTest::writeWithDoubleDotWritesNested()
{
    QJsonObject object;
    ConfigurationManager::setValWithXPath(object, QStringLiteral("x..y"), QJsonValue(true));
    QCOMPARE(object, (QJsonObject {{QStringLiteral("x"), QJsonObject {{QStringLiteral("y"), true}}}}));
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("x.y")), QJsonValue(true));
}

void JsonPathTest::writeKeepsSiblings()
{
    QJsonObject object = sample();
    ConfigurationManager::setValWithXPath(object, QStringLiteral("a.y"), QJsonValue(2));
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("a.x")).toInt(), 1);
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("a.y")).toInt(), 2);
    QCOMPARE(object.value(QStringLiteral("n")).toInt(), 5);
    QCOMPARE(object.value(QStringLiteral("list")).toArray().size(), 2);
}

void JsonPathTest::writeNullKeepsKeyPresent()
{
    QJsonObject object = sample();
    ConfigurationManager::setValWithXPath(object, QStringLiteral("a.x"), QJsonValue(QJsonValue::Null));
    const QJsonObject a = object.value(QStringLiteral("a")).toObject();
    QVERIFY(a.contains(QStringLiteral("x")));
    QCOMPARE(a.value(QStringLiteral("x")).type(), QJsonValue::Null);
}

void JsonPathTest::listFormTakesDotsLiterally()
{
    QJsonObject object;
    ConfigurationManager::setValWithXPath(
        object, QStringList {QStringLiteral("k.with.dot"), QStringLiteral("leaf")}, QJsonValue(1));
    QVERIFY(object.contains(QStringLiteral("k.with.dot")));
    QCOMPARE(object.value(QStringLiteral("k.with.dot")).toObject().value(QStringLiteral("leaf")).toInt(), 1);
    // The string form cannot name such a key.
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("k.with.dot.leaf")).type(), QJsonValue::Null);
}

void JsonPathTest::listFormReturnsChangedObject()
{
    QJsonObject object {{QStringLiteral("keep"), 1}};
    const QJsonValue result
        = ConfigurationManager::setValWithXPath(object, QStringList {QStringLiteral("a"), QStringLiteral("b")}, 2);
    QCOMPARE(result, QJsonValue(object));
    QCOMPARE(result.toObject().value(QStringLiteral("keep")).toInt(), 1);
}

void JsonPathTest::pathsWithoutComponentsAreHarmless()
{
    QJsonObject object = sample();
    const QJsonObject before = object;
    ConfigurationManager::setValWithXPath(object, QString(), QJsonValue(1));
    ConfigurationManager::setValWithXPath(object, QStringLiteral("..."), QJsonValue(1));
    ConfigurationManager::setValWithXPath(object, QStringList(), QJsonValue(1));
    QCOMPARE(object, before);
    QCOMPARE(ConfigurationManager::valWithXPath(object, QStringLiteral("...")).type(), QJsonValue::Undefined);
}

void JsonPathTest::pathAccessLogsNothing()
{
    MessageCapture capture;
    QJsonObject object = sample();
    ConfigurationManager::valWithXPath(object, QStringLiteral("n.b.c"));
    ConfigurationManager::setValWithXPath(object, QStringLiteral("n.b.c"), QJsonValue(1));
    QVERIFY2(capture.messages().isEmpty(), qPrintable(capture.all().join(QLatin1Char('\n'))));
}

void JsonPathTest::parseArrayIndex_data()
{
    QTest::addColumn<QString>("component");
    QTest::addColumn<bool>("found");
    QTest::addColumn<int>("index");
    QTest::newRow("plain") << "[3]" << true << 3;
    QTest::newRow("after a key") << "list[12]" << true << 12;
    QTest::newRow("inside") << "a[7]b" << true << 7;
    QTest::newRow("no brackets") << "list" << false << -1;
    QTest::newRow("not a number") << "list[x]" << false << -1;
    QTest::newRow("negative") << "list[-1]" << false << -1;
    QTest::newRow("too large for int") << "list[99999999999]" << false << 0;
}

void JsonPathTest::parseArrayIndex()
{
    QFETCH(QString, component);
    QFETCH(bool, found);
    QFETCH(int, index);
    int value = -1;
    QCOMPARE(Orvanta::parseArrayIndex(component, &value), found);
    QCOMPARE(value, index);
}

QTEST_GUILESS_MAIN(JsonPathTest)
#include "tst_jsonpath.moc"
