// The least that a Qt program can do to run the debugger: starts it with the arguments that are given and
// ends when it does.

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
