// SPDX-License-Identifier: MIT
#include "program.h"
#include "programhelp.h"
#include "testtree.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

namespace {

const QString BashFile = QStringLiteral(SHARE_FOLDER "/bash-completion/completions/pellox");
const QString ZshFolder = QStringLiteral(SHARE_FOLDER "/zsh/site-functions");
const QString FishFile = QStringLiteral(SHARE_FOLDER "/fish/vendor_completions.d/pellox.fish");

enum Shell { Bash, Zsh, Fish };

struct ShellProgram
{
    Shell shell;
    const char *name;
    const char *program; ///< empty: not there
};
constexpr ShellProgram Shells[]
    = {{Bash, "bash", BASH_PROGRAM}, {Zsh, "zsh", ZSH_PROGRAM}, {Fish, "fish", FISH_PROGRAM}};

bool isThere(const ShellProgram &shell)
{
    const bool needsTerminal = shell.shell != Fish;
    return *shell.program && (!needsTerminal || *SCRIPT_PROGRAM);
}

/// In @p folder: "releases" and "rules.txt", and what else begins with another letter.
void addFiles(const TestTree &folder)
{
    folder.makeFolder(QStringLiteral("releases"));
    folder.write(QStringLiteral("rules.txt"), "rules");
    folder.write(QStringLiteral("game.7z"), "archive");
}

/**
 * Types @p line at an interactive shell in @p folder, then the key that puts all completions of the
 * last word in its place, and lets the shell tell the words that it has now behind the program.
 */
QStringList typed(const TestTree &folder, const QString &command, const QByteArray &start,
    const QString &line, const char *key)
{
    const QString words = QStringLiteral(".words");
    QProcess process;
    startProgram(process, QStringLiteral(SCRIPT_PROGRAM),
        {QStringLiteral("-q"), QStringLiteral("-e"), QStringLiteral("-c"), command,
            QStringLiteral("/dev/null")},
        folder.path());
    process.write("stty -echo cols 200\n" + start);
    process.write("pellox() { for word in \"$@\"; do echo \"word $word\"; done > .words; }\n");
    process.write(line.toUtf8() + key + "\nexit\n");
    const Outcome outcome = outcomeOf(process);
    if (!folder.exists(words))
        return {outcome.out, outcome.err};
    QStringList found
        = QString::fromUtf8(folder.read(words)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    const auto given = line.split(QLatin1Char(' '), Qt::SkipEmptyParts).size()
        - (line.endsWith(QLatin1Char(' ')) ? 1 : 2);
    for (QString &word : found)
        word.remove(0, 5);
    return found.mid(given);
}

QStringList completedByBash(const TestTree &folder, const QString &line)
{
    return typed(folder, QStringLiteral(BASH_PROGRAM " --noprofile --norc -i"),
        "source '" + BashFile.toUtf8() + "'\nbind 'set completion-query-items 0'\n", line, "\033*");
}

QStringList completedByZsh(const TestTree &folder, const QString &line)
{
    return typed(folder, QStringLiteral(ZSH_PROGRAM " -f -i"),
        "fpath=('" + ZshFolder.toUtf8()
            + "' $fpath)\nautoload -Uz compinit && compinit -u -D\n"
              "setopt no_list_beep\n"
              "insert_all() { _main_complete; compstate[insert]=all; compstate[list]= }\n"
              "zle -C insert-all complete-word insert_all\n"
              "bindkey '^T' insert-all\n",
        line, "\024");
}

QStringList completedByFish(const TestTree &folder, const QString &line)
{
    QProcess process;
    startProgram(process, QStringLiteral(FISH_PROGRAM),
        {QStringLiteral("--no-config"), QStringLiteral("-c"),
            QStringLiteral("source '%1'; complete -C '%2'").arg(FishFile, line)},
        folder.path());
    const Outcome outcome = outcomeOf(process);
    QStringList words;
    for (const QString &found : outcome.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        words.append(found.section(QLatin1Char('\t'), 0, 0));
    return words;
}

/// What the shell makes of the last word of @p line, sorted.
QStringList completed(Shell shell, const QString &line)
{
    const TestTree folder;
    addFiles(folder);
    QStringList words = shell == Bash ? completedByBash(folder, line)
        : shell == Zsh                ? completedByZsh(folder, line)
                                      : completedByFish(folder, line);
    for (QString &word : words) {
        if (word.endsWith(QLatin1Char('/')))
            word.chop(1); // of a folder, which some shells mark and some do not
    }
    words.sort();
    return words;
}

/// What the file for @p shell tells of @p command, with its options as one types them.
QString partOf(Shell shell, const QString &command)
{
    QFile file(shell == Bash ? BashFile
            : shell == Zsh   ? ZshFolder + QLatin1String("/_pellox")
                             : FishFile);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QString text = QString::fromUtf8(file.readAll());
    if (shell != Fish) {
        const QString start = QStringLiteral("\n%1%2)").arg(
            shell == Bash ? QStringLiteral("    ") : QStringLiteral("        "), command);
        const auto at = text.indexOf(start);
        return at < 0 ? QString() : text.mid(at, text.indexOf(QLatin1String(";;"), at) - at);
    }
    text = text.split(QLatin1Char('\n'))
               .filter(QStringLiteral("-n '__pellox_is %1'").arg(command))
               .join(QLatin1Char('\n'));
    return text.replace(QLatin1String(" -l "), QLatin1String(" --"))
        .replace(QLatin1String(" -s "), QLatin1String(" -"));
}

QStringList sorted(QStringList words)
{
    words.sort();
    return words;
}

} // namespace

/// The completions, against the program's help, and in real shells.
class tst_Completions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellEveryCommandAndOption_data();
    void tellEveryCommandAndOption();
    void complete_data();
    void complete();
    void completeEveryOption_data();
    void completeEveryOption();
};

void tst_Completions::tellEveryCommandAndOption_data()
{
    QTest::addColumn<int>("shell");

    for (const ShellProgram &shell : Shells)
        QTest::newRow(shell.name) << int(shell.shell);
}

void tst_Completions::tellEveryCommandAndOption()
{
    QFETCH(int, shell);
    for (const QString &command : programCommands()) {
        const QString part = partOf(Shell(shell), command);
        QVERIFY2(!part.isEmpty(), qPrintable(command));
        for (const QString &option : commandOptions(command)) {
            const QRegularExpression word(QStringLiteral("(?<![a-z-])%1(?![a-z-])").arg(option));
            QVERIFY2(part.contains(word), qPrintable(command + QLatin1Char(' ') + option));
        }
    }
}

void tst_Completions::complete_data()
{
    QTest::addColumn<int>("shell");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QStringList>("words");

    struct Case
    {
        const char *name;
        const char *line;
        const char *words;
    };
    const Case cases[] = {
        {"a command", "pellox pu", "publish"},
        {"several commands", "pellox re", "record recover repair"},
        {"the help of a command", "pellox help ro", "rollback"},
        {"help itself", "pellox he", "help"},
        {"an option", "pellox sign --f", "--fast"},
        {"an option with a value", "pellox sign --th", "--threads"},
        {"an option behind arguments", "pellox diff a b c --eff", "--effort"},
        {"an option of the program", "pellox --ver", "--version"},
        {"a value of a fixed set", "pellox diff a b c --effort ", "balanced fastest smallest"},
        {"the beginning of such a value", "pellox diff a b c --effort ba", "balanced"},
        {"a folder", "pellox sign r", "releases"},
        {"a file", "pellox unpack ru", "rules.txt"},
        {"a folder behind a file", "pellox unpack game.7z r", "releases"},
        {"a folder as a value", "pellox publish a --patch r", "releases"},
        {"a file as a value", "pellox seal a --key ru", "rules.txt"},
        {"an argument behind options", "pellox unpack --json -q g", "game.7z"},
        {"an argument behind a value", "pellox inspect --top 3 r", "releases"},
    };
    for (const ShellProgram &shell : Shells) {
        for (const Case &row : cases) {
            if (isThere(shell))
                QTest::addRow("%s: %s", shell.name, row.name)
                    << int(shell.shell) << QString::fromLatin1(row.line)
                    << QString::fromLatin1(row.words).split(QLatin1Char(' '));
        }
    }
}

void tst_Completions::complete()
{
    QFETCH(int, shell);
    QFETCH(QString, line);
    QFETCH(QStringList, words);
    QCOMPARE(completed(Shell(shell), line), words);
}

void tst_Completions::completeEveryOption_data()
{
    QTest::addColumn<int>("shell");
    QTest::addColumn<QString>("command");

    for (const ShellProgram &shell : Shells) {
        for (const QString &command : programCommands()) {
            if (isThere(shell))
                QTest::addRow("%s: %s", shell.name, qPrintable(command))
                    << int(shell.shell) << command;
        }
    }
}

void tst_Completions::completeEveryOption()
{
    QFETCH(int, shell);
    QFETCH(QString, command);
    QCOMPARE(completed(Shell(shell), QStringLiteral("pellox %1 --").arg(command)),
        sorted(commandOptions(command).filter(QStringLiteral("--"))));
}

QTEST_GUILESS_MAIN(tst_Completions)
#include "tst_completions.moc"
