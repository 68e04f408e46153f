// SPDX-License-Identifier: MIT
// A window that keeps an installed game up to date: updater-window [BUILD [PATCH]]
#include "updaterwindow.h"

#include <QApplication>
#include <QCommandLineParser>

int main(int argc, char **argv)
{
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    QApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
#endif
    QApplication application(argc, argv);

    // A launcher knows its folders and brings its publisher's key along.
    QCommandLineParser parser;
    const QCommandLineOption keys(QStringLiteral("trusted-key"),
        QStringLiteral("Take only patches sealed by the owner of this public key."),
        QStringLiteral("file"));
    parser.addOption(keys);
    parser.addPositionalArgument(QStringLiteral("build"), QStringLiteral("The installed game"));
    parser.addPositionalArgument(
        QStringLiteral("patch"), QStringLiteral("A folder or .7z archive"));
    parser.addHelpOption();
    parser.process(application);

    Updater updater;
    updater.setTrustedKeys(parser.values(keys));
    UpdaterWindow window(updater);
    window.setBuild(parser.positionalArguments().value(0));
    window.setPatch(parser.positionalArguments().value(1));
    window.show();
    return QApplication::exec();
}
