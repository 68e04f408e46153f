// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "gametree.h"
#include "literals.h"
#include "logcapture.h"
#include "patience.h"
#include "updaterwindow.h"
#include "virtualscreen.h"

#include <Pellox/PatchSeal>

#include <QAccessible>
#include <QApplication>
#include <QDialogButtonBox>
#include <QFile>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSemaphore>
#include <QSet>
#include <QtTest>

#include <atomic>
#include <memory>
#include <optional>

using Pellox::UpdateController;
using Phase = UpdateController::UpdatePhase;

namespace {

QStringList sorted(QStringList texts)
{
    texts.sort();
    return texts;
}

/// Where pictures of the window go; empty: nobody wants any.
QString pictureFolder()
{
    return qEnvironmentVariable("PELLOX_PICTURES");
}

int brightPixels(const QImage &picture)
{
    int bright = 0;
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x)
            bright += picture.pixelColor(x, y).lightness() > 160 ? 1 : 0;
    }
    return bright;
}

/// Holds a run at the first signal of its that passes, on the thread that tells it.
class Hold
{
public:
    Hold() = default;
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;
    ~Hold() { release(); }

    /// Stops where @p signal comes and @p isRight says so of what it tells.
    template <typename Sender, typename Signal, typename Condition>
    void at(Sender *sender, Signal signal, Condition isRight)
    {
        QObject::connect(
            sender, signal, &m_context,
            [state = m_state, isRight](auto... told) {
                if (isRight(told...) && !state->isReached.exchange(true))
                    state->gate.acquire();
            },
            Qt::DirectConnection);
    }

    /// Stops all that comes by @p signal.
    template <typename Sender, typename Signal> void atEach(Sender *sender, Signal signal)
    {
        QObject::connect(
            sender, signal, &m_context,
            [state = m_state] {
                state->isReached = true;
                state->gate.acquire();
                state->gate.release();
            },
            Qt::DirectConnection);
    }

    bool isReached() const { return m_state->isReached; }
    void release() { m_state->gate.release(); }

private:
    struct State // the run may still hold it when a test has failed
    {
        std::atomic<bool> isReached{false};
        QSemaphore gate;
    };

    QObject m_context;
    const std::shared_ptr<State> m_state = std::make_shared<State>();
};

} // namespace

/// The example's window, used as a player does: by mouse and keyboard, in a real X server.
class tst_UpdaterWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void fullUpdateByClicks();
    void fullUpdateByKeyboard();
    void enterHeldDownOnlyChecks_data();
    void enterHeldDownOnlyChecks();
    void closedDialogChoosesNothing();
    void checkTouchesNothing();
    void changedPathNeedsANewCheck();
    void nothingToDo();
    void showsProgress();
    void cancel();
    void escapeCancels();
    void commitCannotBeCancelled();
    void hostilePathIsRefused();
    void brokenSealIsRefused();
    void sealedPatchIsTaken();
    void damagedGameIsRefusedWithAdvice();
    void archive();
    void archiveInVolumes();
    void damagedArchiveIsRefused();
    void cancelWhileUnpacking();
    void cutOffUpdateIsFinishedFirst();
    void unpackingAfterACutOffUpdateCanBeCancelled();
    void verifyAndRepair();
    void verifyingKeepsWhatTheCheckHasFound();
    void verifyTellsExtraFiles();
    void verifyWithoutSignatures();
    void repairFromTheWrongFolder();
    void cancelOfVerify();
    void closingAsksFirst();
    void closingWhileItStops();
    void closingWaitsForTheCommit();
    void failedCommitIsSeenBeforeClosing();
    void closingWhileItFinishes();
    void questionGoesWhenItIsTooLate();
    void windowThatIsDestroyedMeanwhile();
    void allIsToldOnOneThread();
    void everyControlHasAnAccessibleName();
    void mnemonicsAreDistinct();
    void tabOrderFollowsTheEye();
    void nothingIsCutOff_data();
    void nothingIsCutOff();
    void darkColours();

private:
    template <typename Widget> Widget *get(const char *name) const
    {
        auto *widget = m_window->findChild<Widget *>(QLatin1String(name));
        if (!widget)
            qFatal("there is no %s", name);
        return widget;
    }
    QPushButton *button(const char *name) const { return get<QPushButton>(name); }
    QString text(const char *label) const { return get<QLabel>(label)->text(); }
    QStringList lines() const;
    QMessageBox *question() const { return m_window->findChild<QMessageBox *>(); }
    UpdateController *controller() const { return m_updater->findChild<UpdateController *>(); }

    void click(const char *name) const;
    void type(const char *edit, const QString &text) const;
    void chooseByClicks(const char *name, const QString &path) const;
    void chooseGameAndPatch(const QString &patch = QString()) const;
    void checkByClicks(const QString &patch = QString()) const;
    void waitForEnd() const;
    void updateUntilFirstFile(Hold &hold) const;
    void holdAt(Phase phase, Hold &hold) const;
    void cutOffUpdate() const;
    void sealPatch(const QString &key) const;
    QString whatIsCutOff() const;
    void shoot(const char *name) const;

    std::optional<LogCapture> m_log;
    std::optional<GameTree> m_tree;
    std::unique_ptr<Updater> m_updater;
    std::unique_ptr<UpdaterWindow> m_window;
};

void tst_UpdaterWindow::init()
{
    m_log.emplace();
    m_tree.emplace(pictureFolder().isEmpty() ? 1 : 40); // so that there is something to see
    m_updater = std::make_unique<Updater>();
    m_window = std::make_unique<UpdaterWindow>(*m_updater);
    m_window->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get(), Patience));
    m_window->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(m_window.get(), Patience));
}

void tst_UpdaterWindow::cleanup()
{
    m_window.reset();
    m_updater.reset();
    m_tree.reset();
    m_log->takeAll("qt.qpa.xcb"); // without a window manager the focus may come too early
    const QStringList trouble = m_log->troubleLeft();
    QVERIFY2(trouble.isEmpty(), qPrintable(trouble.join(QLatin1Char(10))));
    m_log.reset();
}

QStringList tst_UpdaterWindow::lines() const
{
    const QString text = m_window->findChild<QPlainTextEdit *>()->toPlainText();
    return text.isEmpty() ? QStringList() : text.split(QLatin1Char('\n'));
}

void tst_UpdaterWindow::click(const char *name) const
{
    QPushButton *const target = button(name);
    QVERIFY2(target->isVisible() && target->isEnabled(), name);
    QTest::mouseClick(target, Qt::LeftButton);
}

/// As a player does who has clicked into the field.
void tst_UpdaterWindow::type(const char *edit, const QString &text) const
{
    auto *const field = get<QLineEdit>(edit);
    QTest::mouseClick(field, Qt::LeftButton);
    QTest::keyClick(field, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClicks(field, text);
    QCOMPARE(field->text(), text);
}

/// Clicks on a button that opens a dialog, and chooses @p path there.
void tst_UpdaterWindow::chooseByClicks(const char *name, const QString &path) const
{
    bool isChosen = false;
    QTimer player;
    connect(&player, &QTimer::timeout, m_window.get(), [&] {
        auto *const dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
        if (!dialog || !dialog->isVisible())
            return; // not yet
        player.stop();
        dialog->setDirectory(QFileInfo(path).path());
        auto *const file = dialog->findChild<QLineEdit *>("fileNameEdit"_s);
        QTest::mouseClick(file, Qt::LeftButton);
        QTest::keyClicks(file, QFileInfo(path).fileName());
        auto *const open = dialog->findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Open);
        isChosen = QTest::qWaitFor([&] { return open->isEnabled(); }, Patience);
        QTest::mouseClick(open, Qt::LeftButton);
        if (dialog->isVisible()) {
            isChosen = false;
            dialog->reject();
        }
    });
    player.start(10);
    click(name); // until the dialog is closed
    QVERIFY2(isChosen, name);
}

void tst_UpdaterWindow::chooseGameAndPatch(const QString &patch) const
{
    type("build", m_tree->game());
    type("patch", patch.isEmpty() ? m_tree->patch() : patch);
}

void tst_UpdaterWindow::checkByClicks(const QString &patch) const
{
    chooseGameAndPatch(patch);
    click("check");
    waitForEnd();
}

void tst_UpdaterWindow::waitForEnd() const
{
    QTRY_VERIFY_WITH_TIMEOUT(!m_updater->isBusy(), Patience);
}

/// Once the patch is checked.
void tst_UpdaterWindow::updateUntilFirstFile(Hold &hold) const
{
    hold.at(controller(), &UpdateController::fileStaged, [](const QString &) { return true; });
    click("update");
    QTRY_VERIFY_WITH_TIMEOUT(hold.isReached(), Patience);
}

void tst_UpdaterWindow::holdAt(Phase phase, Hold &hold) const
{
    hold.at(controller(), &UpdateController::phaseChanged,
        [phase](Phase entered) { return entered == phase; });
}

/// A picture for the guide, where one is wanted.
void tst_UpdaterWindow::shoot(const char *name) const
{
    if (pictureFolder().isEmpty())
        return;
    const QString file = pictureFolder() + QLatin1String("/updater-window-") + QLatin1String(name)
        + QLatin1String(".png");
    QVERIFY2(m_window->grab().save(file), qPrintable(file));
}

void tst_UpdaterWindow::fullUpdateByClicks()
{
    QVERIFY(!button("check")->isEnabled());
    QVERIFY(!button("update")->isEnabled());
    QVERIFY(!button("cancel")->isEnabled());
    chooseByClicks("buildFolder", m_tree->game());
    chooseByClicks("patchFolder", m_tree->patch());
    QCOMPARE(get<QLineEdit>("build")->text(), m_tree->game());
    QCOMPARE(get<QLineEdit>("patch")->text(), m_tree->patch());
    QVERIFY(!button("update")->isEnabled());

    click("check");
    QVERIFY(!button("check")->isEnabled());
    QVERIFY(!get<QLineEdit>("build")->isEnabled());
    waitForEnd();
    QCOMPARE(text("headline"), "The update is ready"_s);
    const QRegularExpression room(
        "^[0-9.]+ MB will be written; the disk needs [0-9.]+ MB free.$"_s);
    QVERIFY2(room.match(text("detail")).hasMatch(), qPrintable(text("detail")));
    QStringList added;
    QStringList written{"Written: /data/harbour.pak"_s, "Written: /lighthouse"_s};
    for (const char *level : GameTree::Levels) {
        added.append("To add: /"_s + QLatin1String(level));
        written.append("Written: /"_s + QLatin1String(level));
    }
    QCOMPARE(sorted(lines()),
        sorted(added
            + QStringList{"To change: /data/harbour.pak"_s, "To change: /lighthouse"_s,
                "To remove: /data/intro.txt"_s}));
    shoot("check");

    click("update");
    waitForEnd();
    QCOMPARE(text("headline"), "The game is up to date"_s);
    QCOMPARE(m_tree->installed(), m_tree->updated());
    QStringList told = lines();
    QCOMPARE(told.takeLast(), "The game is up to date"_s);
    QCOMPARE(sorted(told), sorted(written));
    QCOMPARE(m_window->findChild<QProgressBar *>()->value(),
        m_window->findChild<QProgressBar *>()->maximum());
    QVERIFY(button("check")->isEnabled());
    QVERIFY(!button("update")->isEnabled());
    QVERIFY(!button("cancel")->isEnabled());
    shoot("done");
}

/// Alt and a letter leads to a field or presses a button; Enter in a field is what comes next.
void tst_UpdaterWindow::fullUpdateByKeyboard()
{
    QTest::keyClick(m_window.get(), Qt::Key_G, Qt::AltModifier);
    QCOMPARE(QApplication::focusWidget(), get<QLineEdit>("build"));
    QTest::keyClicks(QApplication::focusWidget(), m_tree->game());
    QTest::keyClick(m_window.get(), Qt::Key_P, Qt::AltModifier);
    QCOMPARE(QApplication::focusWidget(), get<QLineEdit>("patch"));
    QTest::keyClicks(QApplication::focusWidget(), m_tree->patch());
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
    QVERIFY(m_updater->isBusy());
    waitForEnd();
    QCOMPARE(text("headline"), "The update is ready"_s);
    QTest::keyClick(m_window.get(), Qt::Key_U, Qt::AltModifier);
    QTRY_COMPARE_WITH_TIMEOUT(text("headline"), "The game is up to date"_s, Patience);
    QCOMPARE(m_tree->installed(), m_tree->updated());
}

void tst_UpdaterWindow::enterHeldDownOnlyChecks_data()
{
    QTest::addColumn<QString>("place");

    QTest::newRow("field") << "patch"_s;
    QTest::newRow("button") << "check"_s;
}

void tst_UpdaterWindow::enterHeldDownOnlyChecks()
{
    QFETCH(const QString, place);
    const auto before = m_tree->installed();
    chooseGameAndPatch();
    get<QWidget>(place.toLatin1().constData())->setFocus();
    const auto hold = [this](bool isRepeated) {
        QWidget *const focus = QApplication::focusWidget();
        QKeyEvent event(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier, "\r"_s, isRepeated);
        QApplication::sendEvent(focus ? focus : m_window.get(), &event);
    };
    hold(false);
    QVERIFY(m_updater->isBusy());
    hold(true);
    QVERIFY(m_updater->canCancel());
    waitForEnd();
    for (int i = 0; i < 3; ++i) {
        hold(i < 2); // and pressed once more
        QVERIFY(!m_updater->isBusy());
    }
    QCOMPARE(text("headline"), "The update is ready"_s);
    QCOMPARE(m_tree->installed(), before);
}

void tst_UpdaterWindow::closedDialogChoosesNothing()
{
    for (const char *name : {"buildFolder", "patchFolder", "patchArchive"}) {
        bool isClosed = false;
        QTimer player;
        connect(&player, &QTimer::timeout, m_window.get(), [&] {
            QWidget *const dialog = QApplication::activeModalWidget();
            if (!dialog || !dialog->isVisible())
                return; // not yet
            QTest::keyClick(dialog, Qt::Key_Escape);
            isClosed = true;
        });
        player.start(10);
        click(name);
        QVERIFY(isClosed);
    }
    QCOMPARE(get<QLineEdit>("build")->text(), QString());
    QCOMPARE(get<QLineEdit>("patch")->text(), QString());
}

void tst_UpdaterWindow::checkTouchesNothing()
{
    const auto before = TestTree::snapshot(m_tree->path());
    checkByClicks();
    QCOMPARE(text("headline"), "The update is ready"_s);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_UpdaterWindow::changedPathNeedsANewCheck()
{
    checkByClicks();
    QVERIFY(button("update")->isEnabled());
    QTest::keyClicks(get<QLineEdit>("patch"), "x"_s);
    QVERIFY(!button("update")->isEnabled());
    click("check");
    waitForEnd();
    QCOMPARE(text("headline"), "Refused. Nothing was changed."_s);
}

void tst_UpdaterWindow::nothingToDo()
{
    checkByClicks();
    click("update");
    waitForEnd();
    click("check");
    waitForEnd();
    QCOMPARE(text("headline"), "The game is up to date"_s);
    QVERIFY(!button("update")->isEnabled());
    QCOMPARE(lines(), QStringList("The game is up to date"_s));
}

void tst_UpdaterWindow::showsProgress()
{
    m_tree->addLargeFile();
    const auto before = m_tree->installed();
    checkByClicks();
    Hold beginning;
    beginning.atEach(controller(), &UpdateController::updateProgress);
    Hold middle;
    middle.at(controller(), &UpdateController::updateProgress,
        [](qlonglong done, qlonglong total) { return done * 10 >= total * 4; });
    click("update");
    const auto *bar = m_window->findChild<QProgressBar *>();
    QTRY_VERIFY_WITH_TIMEOUT(bar->maximum() == 1000, Patience);
    QTest::qWait(300); // what is measured in less is chance
    beginning.release();
    QTRY_VERIFY_WITH_TIMEOUT(bar->value() >= 400, Patience);
    const QRegularExpression figures("^[0-9.]+ [MG]B of 1\\.[0-9] GB, [0-9.]+ [kMG]B/s, "
                                     "[0-9]+ (s|min) left$"_s);
    QVERIFY2(figures.match(text("detail")).hasMatch(), qPrintable(text("detail")));
    QCOMPARE(text("headline"), "Writing the new files …"_s);
    shoot("progress");
    click("cancel");
    middle.release();
    waitForEnd();
    QCOMPARE(text("headline"), "Stopped. The game is as it was."_s);
    QCOMPARE(m_tree->installed(), before);
}

void tst_UpdaterWindow::cancel()
{
    const auto before = m_tree->installed();
    checkByClicks();
    {
        Hold hold;
        updateUntilFirstFile(hold);
        QTRY_COMPARE_WITH_TIMEOUT(text("headline"), "Writing the new files …"_s, Patience);
        QVERIFY(m_tree->installed() != before); // it writes beside the old files
        click("cancel");
        QCOMPARE(text("headline"), "Stopping …"_s);
        QVERIFY(!button("cancel")->isEnabled());
        hold.release();
        waitForEnd();
    }
    QCOMPARE(text("headline"), "Stopped. The game is as it was."_s);
    QCOMPARE(m_tree->installed(), before);
    QCOMPARE(m_window->findChild<QProgressBar *>()->value(), 0);
    shoot("cancelled");

    click("update"); // what was checked still counts
    waitForEnd();
    QCOMPARE(m_tree->installed(), m_tree->updated());
}

void tst_UpdaterWindow::escapeCancels()
{
    const auto before = m_tree->installed();
    QTest::keyClick(m_window.get(), Qt::Key_Escape); // nothing runs
    QVERIFY(m_window->isVisible());
    checkByClicks();
    Hold hold;
    updateUntilFirstFile(hold);
    QTest::keyClick(m_window.get(), Qt::Key_Escape);
    QTRY_COMPARE_WITH_TIMEOUT(text("headline"), "Stopping …"_s, Patience);
    hold.release();
    waitForEnd();
    QCOMPARE(text("headline"), "Stopped. The game is as it was."_s);
    QCOMPARE(m_tree->installed(), before);
}

void tst_UpdaterWindow::commitCannotBeCancelled()
{
    checkByClicks();
    Hold hold;
    holdAt(Phase::Committing, hold);
    click("update");
    QTRY_VERIFY_WITH_TIMEOUT(hold.isReached(), Patience);
    QTRY_COMPARE_WITH_TIMEOUT(text("headline"), "Putting the new files in place …"_s, Patience);
    QVERIFY(!button("cancel")->isEnabled());
    QTest::keyClick(m_window.get(), Qt::Key_Escape);
    hold.release();
    waitForEnd();
    QCOMPARE(text("headline"), "The game is up to date"_s);
    QCOMPARE(m_tree->installed(), m_tree->updated());
}

void tst_UpdaterWindow::hostilePathIsRefused()
{
    m_tree->addRule("/../../stolen.txt"_s);
    m_tree->write("stolen.txt"_s, "what the rule would copy");
    m_tree->addRule("/data/../../outside.txt"_s);
    const auto before = TestTree::snapshot(m_tree->path());
    checkByClicks();
    QCOMPARE(text("headline"), "Refused. Nothing was changed."_s);
    QVERIFY2(text("detail").startsWith("See whether this is the right folder"_s),
        qPrintable(text("detail")));
    QVERIFY2(lines().join(QLatin1Char('\n')).contains("/../../stolen.txt"_s),
        qPrintable(lines().join(QLatin1Char('\n'))));
    QVERIFY(!button("update")->isEnabled());
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
    shoot("refused");
}

/// Makes "key.pub" and seals the patch with its private key. Skips the test where seals are not
/// built in.
void tst_UpdaterWindow::sealPatch(const QString &key) const
{
    QString error;
    if (!Pellox::PatchSeal::generateKey(
            m_tree->path(key + ".key"_s), m_tree->path(key + ".pub"_s), &error)) {
        QVERIFY2(error.contains("libcrypto"_s), qPrintable(error));
        QSKIP("built without libcrypto");
    }
    Pellox::PatchSeal sealer;
    QVERIFY2(sealer.seal(m_tree->patch(), m_tree->path("signatures/1.0"_s), 2,
                 {m_tree->path(key + ".key"_s)}),
        qPrintable(sealer.error()));
    m_updater->setTrustedKeys({m_tree->path(key + ".pub"_s)});
}

void tst_UpdaterWindow::brokenSealIsRefused()
{
    sealPatch("publisher"_s);
    if (QTest::currentTestFailed() || !m_tree->exists("publisher.pub"_s))
        return;
    QByteArray content = m_tree->read("patch/data/levels/caves.pak"_s);
    content[1000] = static_cast<char>(~content.at(1000));
    m_tree->write("patch/data/levels/caves.pak"_s, content);
    const auto before = TestTree::snapshot(m_tree->path());
    checkByClicks();
    QCOMPARE(text("headline"), "Refused. Nothing was changed."_s);
    QCOMPARE(text("detail"), "Get the patch from its publisher; do not use this one."_s);
    QVERIFY2(lines().first().startsWith(m_tree->path("patch/data/levels/caves.pak"_s)),
        qPrintable(lines().first()));
    QVERIFY(!button("update")->isEnabled());
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_UpdaterWindow::sealedPatchIsTaken()
{
    sealPatch("publisher"_s);
    if (QTest::currentTestFailed() || !m_tree->exists("publisher.pub"_s))
        return;
    checkByClicks();
    click("update");
    waitForEnd();
    QCOMPARE(text("headline"), "The game is up to date"_s);
    QVERIFY(m_tree->exists("Lighthouse/.pellox/release"_s));
}

void tst_UpdaterWindow::damagedGameIsRefusedWithAdvice()
{
    m_tree->write("Lighthouse/data/harbour.pak"_s, "overwritten");
    checkByClicks();
    QCOMPARE(text("headline"), "The update is ready"_s); // the writing shows it
    click("update");
    waitForEnd();
    QCOMPARE(text("headline"), "Failed. The game is as it was."_s);
    QVERIFY2(
        text("detail").startsWith("Either the build is damaged"_s), qPrintable(text("detail")));
    QVERIFY2(!lines().filter(m_tree->path("Lighthouse/data/harbour.pak: "_s)).isEmpty(),
        qPrintable(lines().join(QLatin1Char('\n'))));
    QCOMPARE(m_tree->read("Lighthouse/data/harbour.pak"_s), QByteArray("overwritten"));
}

void tst_UpdaterWindow::archive()
{
    QVERIFY(QFile::rename(m_tree->pack(), m_tree->path("dl/1.0-1.1.7z"_s)));
    const QString archive = m_tree->path("dl/1.0-1.1.7z"_s);
    QVector<int> percents;
    connect(
        m_updater.get(), &Updater::unpacking, this, [&](int percent) { percents.append(percent); });
    chooseByClicks("buildFolder", m_tree->game());
    chooseByClicks("patchArchive", archive);
    QCOMPARE(get<QLineEdit>("patch")->text(), archive);
    click("check");
    waitForEnd();
    QCOMPARE(text("headline"), "The update is ready"_s);
    QCOMPARE(percents.first(), 0);
    click("update");
    waitForEnd();
    QCOMPARE(text("headline"), "The game is up to date"_s);
    QCOMPARE(m_tree->installed(), m_tree->updated());
    QTRY_COMPARE_WITH_TIMEOUT(GameTree::namesIn(m_tree->path("dl"_s)), QStringList("1.0-1.1.7z"_s),
        Patience); // what was unpacked is removed
}

void tst_UpdaterWindow::archiveInVolumes()
{
    const QString firstVolume = m_tree->pack(500000);
    QVERIFY(m_tree->exists("dl/1.0-1.1.7z.002"_s));
    checkByClicks(firstVolume);
    click("update");
    waitForEnd();
    QCOMPARE(m_tree->installed(), m_tree->updated());
}

void tst_UpdaterWindow::damagedArchiveIsRefused()
{
    m_tree->write("dl/1.0-1.1.7z"_s, randomBytes(5000, 9));
    const auto before = TestTree::snapshot(m_tree->path());
    const QStringList names = GameTree::namesIn(m_tree->path());
    checkByClicks(m_tree->path("dl/1.0-1.1.7z"_s));
    QCOMPARE(text("headline"), "Refused. Nothing was changed."_s);
    QVERIFY2(text("detail").startsWith("Get the patch anew"_s), qPrintable(text("detail")));
    QVERIFY2(
        lines().first().startsWith(m_tree->path("dl/1.0-1.1.7z"_s) + ": cannot be unpacked: "_s),
        qPrintable(lines().first()));
    QTRY_COMPARE_WITH_TIMEOUT(GameTree::namesIn(m_tree->path()), names, Patience);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_UpdaterWindow::cancelWhileUnpacking()
{
    const QString firstVolume = m_tree->pack();
    const auto before = TestTree::snapshot(m_tree->path());
    const QStringList names = GameTree::namesIn(m_tree->path());
    chooseGameAndPatch(firstVolume);
    QString headline;
    connect(m_updater.get(), &Updater::unpacking, button("cancel"), [&](int) {
        if (button("cancel")->isEnabled()) {
            headline = text("headline");
            click("cancel");
        }
    });
    click("check");
    waitForEnd();
    QCOMPARE(headline, "Unpacking the patch …"_s);
    QCOMPARE(text("headline"), "Stopped. No update was begun."_s);
    QVERIFY(!button("update")->isEnabled());
    QTRY_COMPARE_WITH_TIMEOUT(GameTree::namesIn(m_tree->path()), names, Patience);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

/// Leaves an update that was killed while it put its files in place.
void tst_UpdaterWindow::cutOffUpdate() const
{
    const FaultRun killed = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {"update"_s, m_tree->game(), m_tree->patch()},
        {m_tree->path("Lighthouse/lighthouse"_s), "rename", 1, "kill"});
    QVERIFY(killed.crashed);
    QVERIFY(m_tree->exists("Lighthouse/.pellox/journal"_s));
}

void tst_UpdaterWindow::cutOffUpdateIsFinishedFirst()
{
    cutOffUpdate();
    QVector<Phase> phases;
    connect(
        m_updater.get(), &Updater::phaseChanged, this, [&](Phase phase) { phases.append(phase); });
    checkByClicks();
    QCOMPARE(phases, QVector<Phase>({Phase::Checking, Phase::Finishing, Phase::Checking}));
    QCOMPARE(text("headline"), "The game is up to date"_s);
    QCOMPARE(m_tree->installed(), m_tree->updated());
}

void tst_UpdaterWindow::unpackingAfterACutOffUpdateCanBeCancelled()
{
    const QString firstVolume = m_tree->pack();
    cutOffUpdate();
    int unpackings = 0;
    connect(m_updater.get(), &Updater::unpacking, button("cancel"), [&](int) {
        if (++unpackings == 1)
            click("cancel");
    });
    checkByClicks(firstVolume);
    QCOMPARE(unpackings, 1);
    QCOMPARE(text("headline"), "Stopped. No update was begun."_s);
    QCOMPARE(m_tree->installed(), m_tree->updated()); // by what was finished
}

void tst_UpdaterWindow::verifyAndRepair()
{
    const auto right = m_tree->installed();
    m_tree->write("Lighthouse/data/music.pak"_s, "noise");
    m_tree->remove("Lighthouse/lighthouse"_s);
    type("build", m_tree->game());
    QVERIFY(!button("verify")->isEnabled());
    chooseByClicks("signaturesFolder", m_tree->path("signatures/1.0"_s));
    QVERIFY(!button("repair")->isEnabled());
    click("verify");
    waitForEnd();
    QCOMPARE(text("headline"), "The game has to be repaired"_s);
    QCOMPARE(text("detail"), "Intact files: 2, damaged: 1, missing: 1, not part of the game: 1."_s);
    QCOMPARE(lines(), QStringList({"Damaged: /data/music.pak"_s, "Missing: /lighthouse"_s}));
    shoot("verify");

    chooseByClicks("sourceFolder", m_tree->path("releases/1.0"_s));
    click("repair");
    waitForEnd();
    QCOMPARE(text("headline"), "The game is repaired"_s);
    QCOMPARE(m_tree->installed(), right);
    click("repair");
    waitForEnd();
    QCOMPARE(text("headline"), "There is nothing to repair"_s);
    click("verify");
    waitForEnd();
    QCOMPARE(text("headline"), "All files are as they should be"_s);
}

void tst_UpdaterWindow::verifyingKeepsWhatTheCheckHasFound()
{
    checkByClicks(m_tree->pack());
    type("signatures", m_tree->path("releases"_s));
    QVERIFY(button("update")->isEnabled());
    click("verify");
    waitForEnd();
    QCOMPARE(text("headline"), "Refused. Nothing was changed."_s);
    QVERIFY(button("update")->isEnabled());
    type("signatures", m_tree->path("signatures/1.0"_s));
    type("source", m_tree->path("releases/1.0"_s));
    click("verify");
    waitForEnd();
    QCOMPARE(text("headline"), "All files are as they should be"_s);
    click("update");
    waitForEnd();
    QCOMPARE(text("headline"), "The game is up to date"_s);
    QCOMPARE(m_tree->installed(), m_tree->updated());

    checkByClicks(m_tree->patch());
    m_tree->write("Lighthouse/lighthouse"_s, "damaged");
    click("repair"); // of a game that becomes another one
    waitForEnd();
    QVERIFY(!button("update")->isEnabled());
}

void tst_UpdaterWindow::verifyTellsExtraFiles()
{
    type("build", m_tree->game());
    type("signatures", m_tree->path("signatures/1.0"_s));
    QTest::keyClick(get<QLineEdit>("signatures"), Qt::Key_Enter);
    waitForEnd();
    QCOMPARE(text("headline"), "All files are as they should be"_s);
    QCOMPARE(text("detail"), "Intact files: 4, damaged: 0, missing: 0, not part of the game: 1."_s);
}

void tst_UpdaterWindow::verifyWithoutSignatures()
{
    type("build", m_tree->game());
    type("signatures", m_tree->path("releases"_s));
    click("verify");
    waitForEnd();
    QCOMPARE(text("headline"), "Refused. Nothing was changed."_s);
    QVERIFY2(text("detail").startsWith("See whether"_s), qPrintable(text("detail")));
}

void tst_UpdaterWindow::repairFromTheWrongFolder()
{
    m_tree->write("Lighthouse/data/music.pak"_s, "noise");
    const auto before = m_tree->installed();
    type("build", m_tree->game());
    type("signatures", m_tree->path("signatures/1.0"_s));
    type("source", m_tree->path("patch"_s));
    click("repair");
    waitForEnd();
    QCOMPARE(text("headline"), "Refused. Nothing was changed."_s);
    QVERIFY2(text("detail").contains("Give a folder with the files of the very build"_s),
        qPrintable(text("detail")));
    QCOMPARE(m_tree->installed(), before);
}

void tst_UpdaterWindow::cancelOfVerify()
{
    Hold hold;
    hold.at(m_updater->findChild<Pellox::IntegrityController *>(),
        &Pellox::IntegrityController::phaseChanged, [](Phase) { return true; });
    type("build", m_tree->game());
    type("signatures", m_tree->path("signatures/1.0"_s));
    click("verify");
    QTRY_VERIFY_WITH_TIMEOUT(hold.isReached(), Patience);
    QTRY_COMPARE_WITH_TIMEOUT(text("headline"), "Checking …"_s, Patience);
    click("cancel");
    hold.release();
    waitForEnd();
    QCOMPARE(text("headline"), "Stopped. The game is as it was."_s);
}

void tst_UpdaterWindow::closingAsksFirst()
{
    const auto before = m_tree->installed();
    checkByClicks();
    Hold hold;
    updateUntilFirstFile(hold);

    m_window->close();
    QVERIFY(m_window->isVisible());
    QTRY_VERIFY_WITH_TIMEOUT(question()->isVisible(), Patience);
    QTest::keyClick(question(), Qt::Key_Escape); // goes on
    QTRY_VERIFY_WITH_TIMEOUT(question()->isHidden(), Patience);
    QVERIFY(m_updater->canCancel());

    m_window->close();
    QTRY_VERIFY_WITH_TIMEOUT(question()->isVisible(), Patience);
    QTest::mouseClick(question()->button(QMessageBox::Yes), Qt::LeftButton);
    QVERIFY(m_window->isVisible());
    QCOMPARE(text("headline"), "Stopping …"_s);
    hold.release();
    QTRY_VERIFY_WITH_TIMEOUT(!m_window->isVisible(), Patience);
    QVERIFY(!m_updater->isBusy());
    QCOMPARE(m_tree->installed(), before);
}

void tst_UpdaterWindow::closingWhileItStops()
{
    checkByClicks();
    Hold hold;
    updateUntilFirstFile(hold);
    click("cancel");
    m_window->close();
    QVERIFY(m_window->isVisible());
    QVERIFY(question()->isHidden());
    hold.release();
    QTRY_VERIFY_WITH_TIMEOUT(!m_window->isVisible(), Patience);
}

void tst_UpdaterWindow::closingWaitsForTheCommit()
{
    checkByClicks();
    Hold hold;
    holdAt(Phase::Committing, hold);
    click("update");
    QTRY_COMPARE_WITH_TIMEOUT(text("headline"), "Putting the new files in place …"_s, Patience);
    m_window->close();
    QVERIFY(m_window->isVisible());
    QVERIFY(question()->isHidden());
    hold.release();
    QTRY_VERIFY_WITH_TIMEOUT(!m_window->isVisible(), Patience);
    QCOMPARE(m_tree->installed(), m_tree->updated());
}

/// Of a failure nobody must learn by a game that does not start.
void tst_UpdaterWindow::failedCommitIsSeenBeforeClosing()
{
    checkByClicks();
    Hold hold;
    holdAt(Phase::Committing, hold);
    click("update");
    QTRY_COMPARE_WITH_TIMEOUT(text("headline"), "Putting the new files in place …"_s, Patience);
    m_window->close();
    QVERIFY(m_window->isVisible());
    m_tree->remove("Lighthouse/lighthouse"_s);
    m_tree->write("Lighthouse/lighthouse/in the way"_s, "of the new file");
    hold.release();
    waitForEnd();
    QCOMPARE(text("headline"), "Not finished. Try again before you play."_s);
    QVERIFY(m_window->isVisible());
    QVERIFY2(!lines().filter(m_tree->path("Lighthouse/lighthouse"_s)).isEmpty(),
        qPrintable(lines().join(QLatin1Char('\n'))));
    QVERIFY(m_window->close());
}

void tst_UpdaterWindow::closingWhileItFinishes()
{
    const QString firstVolume = m_tree->pack();
    cutOffUpdate();
    int unpackings = 0;
    connect(m_updater.get(), &Updater::unpacking, this, [&](int) { ++unpackings; });
    Hold hold;
    holdAt(Phase::Finishing, hold);
    chooseGameAndPatch(firstVolume);
    click("check");
    QTRY_COMPARE_WITH_TIMEOUT(text("headline"), "Finishing what was interrupted …"_s, Patience);
    m_window->close();
    QVERIFY(m_window->isVisible());
    QVERIFY(question()->isHidden());
    hold.release();
    QTRY_VERIFY_WITH_TIMEOUT(!m_window->isVisible(), Patience);
    QCOMPARE(unpackings, 0);
    QCOMPARE(m_tree->installed(), m_tree->updated());
}

/// What was asked while it could be stopped is no longer asked in the commit.
void tst_UpdaterWindow::questionGoesWhenItIsTooLate()
{
    checkByClicks();
    Hold writing;
    updateUntilFirstFile(writing);
    m_window->close();
    QTRY_VERIFY_WITH_TIMEOUT(question()->isVisible(), Patience);
    writing.release();
    waitForEnd();
    QTRY_VERIFY_WITH_TIMEOUT(question()->isHidden(), Patience);
    QVERIFY(m_window->isVisible());
    QCOMPARE(text("headline"), "The game is up to date"_s);
}

void tst_UpdaterWindow::windowThatIsDestroyedMeanwhile()
{
    const auto before = m_tree->installed();
    checkByClicks();
    Hold hold;
    updateUntilFirstFile(hold);
    m_window.reset();
    m_updater->cancel();
    hold.release();
    m_updater.reset(); // waits
    QCOMPARE(m_tree->installed(), before);
}

void tst_UpdaterWindow::allIsToldOnOneThread()
{
    QSet<QByteArray> told;
    QByteArrayList elsewhere;
    QMutex mutex;
    QObject context; // the end of it all
    const auto watch = [&](const char *name, auto signal) {
        connect(
            m_updater.get(), signal, &context,
            [&, name] {
                const QMutexLocker lock(&mutex);
                told.insert(name);
                if (QThread::currentThread() != thread())
                    elsewhere.append(name);
            },
            Qt::DirectConnection);
    };
    watch("busyChanged", &Updater::busyChanged);
    watch("unpacking", &Updater::unpacking);
    watch("phaseChanged", &Updater::phaseChanged);
    watch("progressed", &Updater::progressed);
    watch("fileWritten", &Updater::fileWritten);
    watch("problemFound", &Updater::problemFound);
    watch("checked", &Updater::checked);
    watch("verified", &Updater::verified);
    watch("finished", &Updater::finished);

    type("signatures", m_tree->path("signatures/1.0"_s));
    type("source", m_tree->path("releases/1.0"_s));
    checkByClicks(m_tree->pack());
    for (const char *job : {"verify", "repair", "check", "update"}) {
        click(job);
        waitForEnd();
    }
    QCOMPARE(text("headline"), "The game is up to date"_s);
    QVERIFY(!told.contains("problemFound"));
    // Of the check, of an update and of verifying.
    checkByClicks(m_tree->path("releases"_s));
    QVERIFY(told.remove("problemFound"));
    m_tree->write("Lighthouse/data/harbour.pak"_s, "damaged");
    checkByClicks();
    click("update");
    waitForEnd();
    QVERIFY(told.remove("problemFound"));
    type("signatures", m_tree->path("releases"_s));
    click("verify");
    waitForEnd();
    QVERIFY(told.contains("problemFound"));
    QCOMPARE(told.size(), 9);
    QCOMPARE(elsewhere, QByteArrayList());
}

void tst_UpdaterWindow::everyControlHasAnAccessibleName()
{
    QSet<QString> names;
    for (QWidget *widget : m_window->findChildren<QWidget *>()) {
        if (widget->window() != m_window.get() || (widget->focusPolicy() & Qt::TabFocus) == 0)
            continue;
        QAccessibleInterface *told = QAccessible::queryAccessibleInterface(widget);
        const QString name = told ? told->text(QAccessible::Name) : QString();
        QVERIFY2(!name.isEmpty() && !names.contains(name), qPrintable(widget->objectName() + name));
        names.insert(name);
    }
    QCOMPARE(names.size(), 15);
}

void tst_UpdaterWindow::mnemonicsAreDistinct()
{
    QStringList texts;
    for (const QLabel *label : m_window->findChildren<QLabel *>()) {
        if (label->buddy())
            texts.append(label->text());
    }
    for (const char *name : {"patchArchive", "check", "update", "verify", "repair"})
        texts.append(button(name)->text());
    QCOMPARE(texts.size(), 9);
    QSet<QString> keys;
    for (const QString &text : texts) {
        const QString key = QKeySequence::mnemonic(text).toString();
        QVERIFY2(!key.isEmpty() && !keys.contains(key), qPrintable(text));
        keys.insert(key);
    }
}

void tst_UpdaterWindow::tabOrderFollowsTheEye()
{
    chooseGameAndPatch();
    QTest::keyClick(m_window.get(), Qt::Key_G, Qt::AltModifier);
    QStringList visited;
    for (int i = 0; i < 12; ++i) {
        visited.append(QApplication::focusWidget()->objectName());
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
    }
    QCOMPARE(visited,
        QStringList({"build"_s, "buildFolder"_s, "patch"_s, "patchFolder"_s, "patchArchive"_s,
            "signatures"_s, "signaturesFolder"_s, "source"_s, "sourceFolder"_s, "check"_s,
            "lines"_s, "build"_s}));
}

void tst_UpdaterWindow::nothingIsCutOff_data()
{
    QTest::addColumn<QSize>("size");

    QTest::newRow("as it opens") << QSize();
    QTest::newRow("as small as can be") << QSize(1, 1);
    QTest::newRow("large") << QSize(1500, 1100);
}

/// The first widget that has not the room that it needs, and its size.
QString tst_UpdaterWindow::whatIsCutOff() const
{
    for (const QWidget *widget : m_window->findChildren<QWidget *>()) {
        const QWidget *parent = widget->parentWidget();
        if (!widget->isVisible()
            || (parent != m_window.get() && parent != get<QLineEdit>("build")->parentWidget()))
            continue; // or a part of another
        const QSize least = widget->minimumSizeHint();
        const auto *const label = qobject_cast<const QLabel *>(widget);
        const QRect place(widget->mapTo(m_window.get(), QPoint(0, 0)), widget->size());
        if (widget->width() < least.width() || widget->height() < least.height()
            || (label && label->height() < label->heightForWidth(label->width()))
            || !m_window->rect().contains(place))
            return "%1 %2: %3 x %4"_s.arg(QString::fromLatin1(widget->metaObject()->className()))
                .arg(widget->objectName())
                .arg(widget->width())
                .arg(widget->height());
    }
    return {};
}

void tst_UpdaterWindow::nothingIsCutOff()
{
    QFETCH(QSize, size);
    if (size.isValid())
        m_window->resize(size);
    m_tree->write("Lighthouse/data/harbour.pak"_s, "damaged"); // the longest advice
    checkByClicks();
    click("update");
    waitForEnd();
    QVERIFY(text("detail").size() > 180);
    // The X server tells of a new size when it has the time.
    QTRY_COMPARE_WITH_TIMEOUT(whatIsCutOff(), QString(), Patience);
}

/// Everything is drawn in the colours of the palette.
void tst_UpdaterWindow::darkColours()
{
    const QPalette before = QApplication::palette();
    QPalette dark;
    dark.setColor(QPalette::Window, QColor(45, 45, 48));
    dark.setColor(QPalette::Base, QColor(32, 32, 34));
    dark.setColor(QPalette::AlternateBase, QColor(38, 38, 41));
    dark.setColor(QPalette::Button, QColor(58, 58, 62));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        dark.setColor(role, QColor(230, 230, 230));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        dark.setColor(QPalette::Disabled, role, QColor(125, 125, 125));
    dark.setColor(QPalette::PlaceholderText, QColor(125, 125, 125));
    dark.setColor(QPalette::Highlight, QColor(53, 132, 228));
    dark.setColor(QPalette::HighlightedText, Qt::white);
    QApplication::setPalette(dark);
    checkByClicks();
    click("update");
    waitForEnd();
    shoot("dark");

    const QImage picture = m_window->grab().toImage();
    QApplication::setPalette(before);
    // No part of the window is as bright as paper, but for letters and the bar.
    const int bright = brightPixels(picture);
    QVERIFY2(bright < picture.width() * picture.height() / 20, qPrintable(QString::number(bright)));
    for (const char *name : {"headline", "check", "build"}) { // there are letters
        const auto *part = get<QWidget>(name);
        const QRect place(part->mapTo(m_window.get(), QPoint(0, 0)), part->size());
        QVERIFY2(brightPixels(picture.copy(place)) > 50, name);
    }
}

int main(int argc, char **argv)
{
    if (pictureFolder().isEmpty())
        useMemoryForFiles();
    const VirtualScreen screen;
    QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QApplication application(argc, argv);
    if (!pictureFolder().isEmpty())
        QApplication::setApplicationName("games"_s); // the folders' name
    tst_UpdaterWindow test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_updaterwindow.moc"
