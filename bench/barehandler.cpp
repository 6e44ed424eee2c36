// The smallest Qt program that runs the debugger: starts gdb with the given arguments and ends when
// gdb ends.

#include <QCoreApplication>
#include <QProcess>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    QProcess debugger;
    QObject::connect(&debugger, &QProcess::finished, &application, &QCoreApplication::quit);
    debugger.setProcessChannelMode(QProcess::MergedChannels);
    debugger.start(u"gdb"_s, QCoreApplication::arguments().mid(1));
    return QCoreApplication::exec();
}
