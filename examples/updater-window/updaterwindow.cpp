// SPDX-License-Identifier: MIT
#include "updaterwindow.h"

#include <QAccessible>
#include <QCloseEvent>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTabWidget>

using Stage = Updater::Stage;

namespace {

constexpr int MostLines = 1000; // a release may have many more files

template <typename Widget> Widget *named(Widget *widget, const char *name)
{
    widget->setObjectName(QLatin1String(name));
    return widget;
}

/// A row of a form: what the field is for, the field, and what is beside it.
void addRow(QGridLayout *form, const char *name, const QString &text, QLineEdit *edit,
    const QList<QPushButton *> &buttons)
{
    const int row = form->rowCount();
    form->setColumnStretch(1, 1);
    auto *label = named(new QLabel(text), name);
    label->setBuddy(edit);
    form->addWidget(label, row, 0);
    const int free = 3 - static_cast<int>(buttons.size()); // all rows are equally wide
    form->addWidget(edit, row, 1, 1, free);
    for (int i = 0; i < buttons.size(); ++i)
        form->addWidget(buttons.at(i), row, 1 + free + i);
}

} // namespace

UpdaterWindow::UpdaterWindow(Updater &updater, QWidget *parent)
    : QWidget(parent)
    , m_updater(updater)
{
    named(this, "updaterWindow")->setWindowTitle(tr("Update the game"));
    resize(680, 560);
    setMinimumSize(560, 440); // room for the longest advice

    m_build = pathEdit("build", tr("Folder of the installed game"));
    m_chooseBuild = folderButton("chooseBuild", tr("Ch&oose …"), m_build);
    auto *game = new QGridLayout;
    addRow(game, "buildLabel", tr("&Game folder:"), m_build, {m_chooseBuild});
    m_pages = named(new QTabWidget, "pages");
    m_pages->setAccessibleName(tr("What to do"));
    m_pages->addTab(updatePage(), tr("Ne&w release"));
    m_pages->addTab(repairPage(), tr("&Verify and repair"));

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(game);
    layout->addWidget(m_pages);
    layout->addWidget(statusArea());
    layout->addWidget(m_lines, 1);

    listen();
    say(wordsBefore());
    refresh();
}

QWidget *UpdaterWindow::updatePage()
{
    auto *page = named(new QWidget, "updatePage");
    auto *form = new QGridLayout;
    m_patch = pathEdit("patch", tr("Patch, a folder or a .7z archive"));
    addRow(form, "patchLabel", tr("&Patch:"), m_patch,
        {folderButton("choosePatchFolder", tr("&Folder …"), m_patch),
            button("choosePatchArchive", tr("&Archive …"), &UpdaterWindow::chooseArchive)});
    auto *hint
        = named(new QLabel(tr("The patch is checked before anything is changed.")), "patchHint");
    m_check = button("check", tr("&Check"), &UpdaterWindow::startCheck);
    m_update = button("update", tr("&Update"), &UpdaterWindow::startUpdate);
    auto *layout = new QVBoxLayout(page);
    layout->addLayout(form);
    layout->addWidget(hint);
    layout->addStretch();
    layout->addLayout(buttonRow({m_check, m_update}));
    return page;
}

QWidget *UpdaterWindow::repairPage()
{
    auto *page = named(new QWidget, "repairPage");
    auto *form = new QGridLayout;
    m_signatures = pathEdit("signatures", tr("Folder with the signatures of the release"));
    addRow(form, "signaturesLabel", tr("&Signatures:"), m_signatures,
        {folderButton("chooseSignatures", tr("Choos&e …"), m_signatures)});
    m_source = pathEdit("source", tr("Folder with the right files, to repair from"));
    addRow(form, "sourceLabel", tr("R&ight files:"), m_source,
        {folderButton("chooseSource", tr("C&hoose …"), m_source)});
    m_verify = button("verify", tr("Verif&y files"), &UpdaterWindow::startVerify);
    m_repair = button("repair", tr("&Repair"), &UpdaterWindow::startRepair);
    auto *layout = new QVBoxLayout(page);
    layout->addLayout(form);
    layout->addStretch();
    layout->addLayout(buttonRow({m_verify, m_repair}));
    return page;
}

QWidget *UpdaterWindow::statusArea()
{
    auto *area = named(new QWidget, "status");
    m_mark = named(new QLabel, "mark");
    m_headline = named(new QLabel, "headline");
    QFont large = m_headline->font();
    large.setBold(true);
    large.setPointSizeF(large.pointSizeF() * 1.25);
    m_headline->setFont(large);
    m_detail = named(new QLabel, "detail");
    for (QLabel *text : {m_headline, m_detail}) {
        text->setTextFormat(Qt::PlainText); // a patch may bring in any text
        text->setTextInteractionFlags(Qt::TextSelectableByMouse);
        text->setWordWrap(true);
    }
    m_detail->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    m_detail->setText(QStringLiteral("\n"));
    m_detail->setMinimumHeight(m_detail->sizeHint().height()); // two lines, so that little jumps
    m_bar = named(new QProgressBar, "progress");
    m_bar->setAccessibleName(tr("Progress"));
    m_figures = named(new QLabel, "figures");
    m_figures->setAccessibleName(tr("Progress, speed and time left"));
    m_cancel = button("cancel", tr("Ca&ncel"), &UpdaterWindow::stop);
    m_cancel->setAutoDefault(false); // a second Enter shall not stop what the first has started
    m_lines = named(new QListWidget, "lines");
    m_lines->setAccessibleName(tr("What was found and done"));
    m_lines->setWordWrap(true);
    const int iconSize = style()->pixelMetric(QStyle::PM_SmallIconSize, nullptr, this);
    m_lines->setIconSize(QSize(iconSize, iconSize));
    m_lines->setAlternatingRowColors(true);
    m_lines->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);

    auto *layout = new QGridLayout(area);
    layout->setContentsMargins(0, 6, 0, 6);
    layout->setHorizontalSpacing(12);
    layout->setColumnStretch(1, 1);
    layout->addWidget(m_mark, 0, 0, 2, 1, Qt::AlignTop);
    layout->addWidget(m_headline, 0, 1, 1, 2);
    layout->addWidget(m_detail, 1, 1, 1, 2);
    layout->addWidget(m_bar, 2, 0, 1, 2);
    layout->addWidget(m_cancel, 2, 2);
    layout->addWidget(m_figures, 3, 0, 1, 3);
    return area;
}

QBoxLayout *UpdaterWindow::buttonRow(const QList<QPushButton *> &buttons)
{
    auto *row = new QHBoxLayout;
    row->addStretch();
    for (QPushButton *button : buttons)
        row->addWidget(button);
    return row;
}

QLineEdit *UpdaterWindow::pathEdit(const char *name, const QString &accessibleName)
{
    auto *edit = named(new QLineEdit, name);
    edit->setAccessibleName(accessibleName);
    edit->setPlaceholderText(accessibleName);
    connect(edit, &QLineEdit::textChanged, this, [this] {
        m_updater.forget();
        refresh();
    });
    return edit;
}

QPushButton *UpdaterWindow::button(
    const char *name, const QString &text, void (UpdaterWindow::*clicked)())
{
    auto *button = named(new QPushButton(text), name);
    button->setAutoDefault(true); // Enter presses the one that has the focus
    connect(button, &QPushButton::clicked, this, clicked);
    return button;
}

QPushButton *UpdaterWindow::folderButton(const char *name, const QString &text, QLineEdit *edit)
{
    auto *button = named(new QPushButton(text), name);
    button->setAutoDefault(true);
    button->setAccessibleName(tr("Choose: %1").arg(edit->accessibleName()));
    connect(button, &QPushButton::clicked, this, [this, edit] {
        const QString folder
            = QFileDialog::getExistingDirectory(this, edit->accessibleName(), edit->text());
        if (!folder.isEmpty())
            edit->setText(QDir::toNativeSeparators(folder));
    });
    return button;
}

void UpdaterWindow::listen()
{
    connect(&m_updater, &Updater::stageChanged, this, &UpdaterWindow::showStage);
    connect(&m_updater, &Updater::progressed, this, &UpdaterWindow::showProgress);
    connect(&m_updater, &Updater::problemFound, this, &UpdaterWindow::showProblem);
    connect(&m_updater, &Updater::fileWritten, this, [this](const QString &path) {
        addLine(Mark::Good, tr("Written: %1").arg(pathText(path)));
    });
    connect(&m_updater, &Updater::checked, this, &UpdaterWindow::showPlan);
    connect(&m_updater, &Updater::verified, this, &UpdaterWindow::showReport);
    connect(&m_updater, &Updater::finished, this, &UpdaterWindow::showResult);
}

void UpdaterWindow::setBuild(const QString &folder)
{
    m_build->setText(folder);
}

void UpdaterWindow::setPatch(const QString &folderOrArchive)
{
    m_patch->setText(folderOrArchive);
}

void UpdaterWindow::startCheck()
{
    clearLines();
    m_updater.check(m_build->text(), m_patch->text());
}

void UpdaterWindow::startUpdate()
{
    clearLines();
    m_updater.update();
}

void UpdaterWindow::startVerify()
{
    clearLines();
    m_updater.verify(m_build->text(), m_signatures->text());
}

void UpdaterWindow::startRepair()
{
    clearLines();
    m_updater.repair(m_build->text(), m_signatures->text(), m_source->text());
}

void UpdaterWindow::stop()
{
    m_updater.cancel();
    m_headline->setText(tr("Stopping …"));
    refresh();
}

void UpdaterWindow::chooseArchive()
{
    const QString file = QFileDialog::getOpenFileName(this, m_patch->accessibleName(),
        m_patch->text(), tr("7z archives (*.7z *.7z.001);;All files (*)"));
    if (!file.isEmpty())
        m_patch->setText(QDir::toNativeSeparators(file));
}

void UpdaterWindow::showStage(Stage stage)
{
    if (stage != Stage::Idle) {
        say(wordsOf(stage, m_updater.job()));
        m_bar->setRange(0, 0); // busy, until something is known
    }
    m_figures->clear();
    m_speed.restart();
    m_clock.start();
    refresh();
    (m_updater.isBusy() ? m_cancel : nextButton())->setFocus();
    if (m_question && !m_updater.canCancel())
        m_question->close(); // it is too late to ask
    if (stage == Stage::Idle && m_closesAtEnd)
        close();
}

void UpdaterWindow::showProgress(qint64 done, qint64 total)
{
    if (total <= 0 || !m_updater.isBusy())
        return;
    constexpr int Steps = 1000; // bytes do not fit in an int
    m_bar->setRange(0, Steps);
    m_bar->setValue(
        static_cast<int>(static_cast<double>(done) / static_cast<double>(total) * Steps));
    if (m_updater.stage() == Stage::Unpacking)
        return; // that knows no bytes
    m_speed.take(done, total, m_clock.elapsed());
    m_figures->setText(m_speed.text());
}

void UpdaterWindow::showProblem(const Pellox::UpdateProblem &problem)
{
    addLine(Mark::Bad, problem.message());
    if (!m_advice.contains(problem.advice()))
        m_advice.append(problem.advice());
}

void UpdaterWindow::showPlan(const Pellox::UpdatePlan &plan)
{
    for (const QString &path : plan.patches)
        addLine(Mark::Note, tr("To change: %1").arg(pathText(path)));
    for (const QString &path : plan.copies)
        addLine(Mark::Note, tr("To add: %1").arg(pathText(path)));
    for (const QString &path : plan.deletions)
        addLine(Mark::Note, tr("To remove: %1").arg(pathText(path)));
    m_bar->setRange(0, 1);
    m_bar->setValue(m_updater.canUpdate() ? 0 : 1);
    say(wordsOf(plan));
}

void UpdaterWindow::showReport(const Pellox::IntegrityReport &report)
{
    for (const QString &path : report.changed)
        addLine(Mark::Warning, tr("Damaged: %1").arg(pathText(path)));
    for (const QString &path : report.missing)
        addLine(Mark::Warning, tr("Missing: %1").arg(pathText(path)));
    for (const QString &path : report.unreadable)
        addLine(Mark::Warning, tr("Cannot be read: %1").arg(pathText(path)));
    m_bar->setRange(0, 1);
    m_bar->setValue(1);
    say(wordsOf(report));
}

void UpdaterWindow::showResult(Updater::Result result)
{
    const bool isDone
        = result == Updater::Result::Updated || result == Updater::Result::AlreadyUpToDate;
    m_bar->setRange(0, 1);
    m_bar->setValue(isDone ? 1 : 0);
    const Words words = wordsOf(result, m_updater.job(), m_advice.join(QLatin1Char(' ')));
    if (result != Updater::Result::Refused)
        addLine(words.mark, words.headline);
    say(words);
}

void UpdaterWindow::say(const Words &words)
{
    const int size = style()->pixelMetric(QStyle::PM_LargeIconSize, nullptr, this);
    m_mark->setPixmap(pixmapOf(words.mark, size, devicePixelRatioF()));
    m_headline->setText(words.headline);
    m_detail->setText(words.detail);
    QAccessibleEvent news(m_headline, QAccessible::Alert); // read out by screen readers
    QAccessible::updateAccessibility(&news);
}

void UpdaterWindow::addLine(Mark mark, const QString &text)
{
    if (m_lines->count() >= MostLines)
        delete m_lines->takeItem(0);
    const int size = m_lines->iconSize().width();
    m_lines->addItem(new QListWidgetItem(pixmapOf(mark, size, devicePixelRatioF()), text));
    m_lines->scrollToBottom();
}

void UpdaterWindow::clearLines()
{
    m_lines->clear();
    m_advice.clear();
}

/// The buttons, as the job under way allows.
void UpdaterWindow::refresh()
{
    const bool isFree = !m_updater.isBusy();
    const bool hasBuild = isFree && !m_build->text().isEmpty();
    const bool hasSignatures = hasBuild && !m_signatures->text().isEmpty();
    for (QWidget *widget : {static_cast<QWidget *>(m_build), static_cast<QWidget *>(m_chooseBuild),
             static_cast<QWidget *>(m_pages)})
        widget->setEnabled(isFree);
    m_check->setEnabled(hasBuild && !m_patch->text().isEmpty());
    m_update->setEnabled(m_updater.canUpdate());
    m_verify->setEnabled(hasSignatures);
    m_repair->setEnabled(hasSignatures && !m_source->text().isEmpty());
    m_cancel->setEnabled(m_updater.canCancel());
    m_check->setDefault(nextButton() == m_check);
    m_update->setDefault(nextButton() == m_update);
    m_verify->setDefault(nextButton() == m_verify);
}

QPushButton *UpdaterWindow::nextButton() const
{
    if (m_pages->currentIndex() != 0)
        return m_verify;
    return m_update->isEnabled() ? m_update : m_check;
}

void UpdaterWindow::closeEvent(QCloseEvent *event)
{
    if (!m_updater.isBusy())
        return event->accept();
    event->ignore();
    if (m_updater.canCancel() && !m_closesAtEnd)
        askBeforeClosing();
    else
        m_closesAtEnd = true; // files are being put in place, or it stops already
}

void UpdaterWindow::askBeforeClosing()
{
    if (m_question)
        return m_question->activateWindow();
    m_question
        = named(new QMessageBox(QMessageBox::Question, windowTitle(),
                    tr("Stop and close? The game stays as it is."), QMessageBox::NoButton, this),
            "closeQuestion");
    m_question->setAttribute(Qt::WA_DeleteOnClose);
    auto *yes = named(m_question->addButton(tr("&Stop"), QMessageBox::AcceptRole), "stop");
    auto *goOn = named(m_question->addButton(tr("&Go on"), QMessageBox::RejectRole), "goOn");
    m_question->setDefaultButton(goOn);
    m_question->setEscapeButton(goOn);
    connect(yes, &QPushButton::clicked, this, [this] {
        m_closesAtEnd = true;
        stop();
    });
    m_question->open(); // the job goes on meanwhile
}

void UpdaterWindow::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape)
        m_cancel->click();
    else if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter)
        nextButton()->click();
    else
        QWidget::keyPressEvent(event);
}
