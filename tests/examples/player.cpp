// SPDX-License-Identifier: MIT
#include <QApplication>
#include <QGenericPlugin>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTimer>

#include <cstdio>

namespace {

QString textOf(const QWidget *window, const char *label)
{
    const auto *found = window->findChild<QLabel *>(QLatin1String(label));
    return found ? found->text() : QStringLiteral("there is no such label");
}

void tell(const QString &line)
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

} // namespace

/**
 * Somebody at the window of the program that this is loaded into: presses the buttons that
 * PLAYER_CLICKS names, each once the one before has done its work, tells what is shown then, and
 * closes the window.
 */
class Player : public QObject
{
    Q_OBJECT

public:
    Player()
        : m_clicks(qEnvironmentVariable("PLAYER_CLICKS").split(QLatin1Char(' ')))
    {
        m_clicks.removeAll(QString());
        connect(&m_look, &QTimer::timeout, this, &Player::look);
        m_look.start(10);
    }

private:
    void look()
    {
        QWidget *window = nullptr;
        for (QWidget *one : QApplication::topLevelWidgets()) {
            if (one->isVisible() && one->findChild<QLineEdit *>(QStringLiteral("build")))
                window = one;
        }
        if (!window || !window->findChild<QLineEdit *>(QStringLiteral("build"))->isEnabled())
            return; // not there yet, or busy
        if (m_hasClicked)
            tellOutcome(*window);
        else
            tell(QStringLiteral("opened with \"%1\" and \"%2\"")
                     .arg(window->findChild<QLineEdit *>(QStringLiteral("build"))->text(),
                         window->findChild<QLineEdit *>(QStringLiteral("patch"))->text()));
        if (m_clicks.isEmpty())
            window->close();
        else
            click(*window, m_clicks.takeFirst());
    }

    void click(const QWidget &window, const QString &name)
    {
        auto *button = window.findChild<QPushButton *>(name);
        if (!button || !button->isEnabled())
            tell(QStringLiteral("cannot press ") + name);
        else
            button->click();
        m_hasClicked = true;
    }

    static void tellOutcome(const QWidget &window)
    {
        tell(textOf(&window, "headline"));
        tell(textOf(&window, "detail"));
        tell(window.findChild<QPlainTextEdit *>()->toPlainText());
    }

    QTimer m_look;
    QStringList m_clicks;
    bool m_hasClicked = false;
};

/// QT_QPA_GENERIC_PLUGINS=player loads it.
class PlayerPlugin : public QGenericPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QGenericPluginFactoryInterface_iid FILE "player.json")

public:
    QObject *create(const QString &, const QString &) override { return new Player; }
};

#include "player.moc"
