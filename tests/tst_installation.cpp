// What is installed, in a prefix of its own: applications of somebody else are built against it, and crash.

#include "tests/support.h"

#include <csignal>

class InstallationTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        prefix = std::make_unique<QTemporaryDir>();
        const QByteArray path = QFile::encodeName(prefix->path());
        QCOMPARE(shell("cmake --install '" BUILD_FOLDER "' --prefix '" + path + "' > /dev/null"),
                 0);
    }

    void anApplicationIsBuiltAndItsCrashIsReported_data()
    {
        QTest::addColumn<QByteArray>("build");
        QTest::addColumn<int>("signal");
        QTest::newRow("in C++, by CMake") << QByteArray(
            "cmake -G '" CMAKE_GENERATOR "' -D CMAKE_CXX_COMPILER='" CMAKE_CXX_COMPILER
            "' -D CMAKE_PREFIX_PATH=$prefix -B . -S '" SOURCE_FOLDER "/examples'"
            " && cmake --build .") << SIGSEGV;
        QTest::newRow("in C++, by pkg-config")
            << QByteArray("'" CMAKE_CXX_COMPILER "' -std=c++17 -pthread -o example-mail"
                          " '" SOURCE_FOLDER "/examples/examplemail.cpp' $flags")
            << SIGSEGV;
        QTest::newRow("in C, by pkg-config")
            << QByteArray("cc -std=c11 -Wall -Wextra -Wpedantic -Werror -o example-mail"
                          " '" SOURCE_FOLDER "/tests/crashingapplication.c' $flags")
            << SIGABRT;
    }
    void anApplicationIsBuiltAndItsCrashIsReported()
    {
        QFETCH(const QByteArray, build);
        QFETCH(const int, signal);
        const QByteArray findFlags = "prefix=" + QFile::encodeName(prefix->path())
            + "; flags=$(pkg-config --cflags --libs $(find $prefix -name '*.pc')) && ";
        QVERIFY2(shell("{ " + findFlags + build + "; } > log 2>&1") == 0, contentOf(u"log"_s));
        writeProgram("gdb", "echo kept");
        const Outcome outcome = run({"./example-mail", ".", "--crash"},
                                    {"PATH=" + qgetenv("PATH"), "TMPDIR=" + path()});
        const QByteArray dump = dumps(outcome.output, "Example Mail");
        QVERIFY2(dump.startsWith("Example Mail has closed unexpectedly"), outcome.output);
        QVERIFY(dump.endsWith("\nkept\n"));
        QCOMPARE(outcome.output.contains("back after a crash"), signal == SIGSEGV);
        QCOMPARE(outcome.exitCode, 128 + signal);
    }

private:
    std::unique_ptr<QTemporaryDir> prefix;
};

TEST_MAIN(InstallationTest)
#include "tst_installation.moc"
