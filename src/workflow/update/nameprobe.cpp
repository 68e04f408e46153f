// SPDX-License-Identifier: MIT
#include "nameprobe.h"

#include "filesystem.h"
#include "wholefile.h"
#include "workfolder.h"

#include <QDirIterator>

namespace Pellox {

namespace {

/// False also with @p error, where the system does not tell.
bool isSameFile(const QString &path, const QString &other, FileError *error)
{
    const auto status = statusOf(path, error);
    const auto otherStatus = statusOf(other, error);
    return status && otherStatus && status->st_dev == otherStatus->st_dev
        && status->st_ino == otherStatus->st_ino;
}

/// In the letters of ASCII alone: of others, some have no single one in the other case.
QString withOtherCase(QString text)
{
    for (QChar &letter : text) {
        if (letter.unicode() < 0x80)
            letter = letter.isUpper() ? letter.toLower() : letter.toUpper();
    }
    return text;
}

QString withOtherForm(const QString &text)
{
    const QString composed = text.normalized(QString::NormalizationForm_C);
    return composed == text ? text.normalized(QString::NormalizationForm_D) : composed;
}

/// Learns from files that are there. That one folder tells names apart says nothing of another.
class Witness
{
public:
    void hear(const QString &folder, const QString &name)
    {
        const bool tellsCase = !m_sense.foldsCase && withOtherCase(name) != name;
        const bool tellsUnicode = !m_sense.foldsUnicode && withOtherForm(name) != name;
        if ((!tellsCase && !tellsUnicode) || !statusOf(folder + name))
            return;
        const auto isSame = [&](const QString &otherName) {
            FileError unknown; // a trial tells more
            return isSameFile(folder + name, folder + otherName, &unknown);
        };
        m_sense.foldsCase |= tellsCase && isSame(withOtherCase(name));
        m_sense.foldsUnicode |= tellsUnicode && isSame(withOtherForm(name));
    }

    bool knowsAll() const { return m_sense.foldsCase && m_sense.foldsUnicode; }
    NameSense sense() const { return m_sense; }

private:
    NameSense m_sense;
};

} // namespace

NameSense seenNameSense(const QString &build, const std::vector<UpdateRule> &rules)
{
    Witness witness;
    for (const UpdateRule &rule : rules) {
        const QString path = build + rule.relativePath;
        const auto nameStart = path.lastIndexOf(QLatin1Char('/')) + 1;
        witness.hear(path.left(nameStart), path.mid(nameStart));
    }
    QDirIterator entry(
        build, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    while (entry.hasNext() && !witness.knowsAll()) {
        entry.next();
        witness.hear(build + QLatin1Char('/'), entry.fileName());
    }
    return witness.sense();
}

std::optional<NameSense> triedNameSense(const QString &build, FileError *error)
{
    // Where a killed run may leave it: the next one clears that folder.
    const QString folder = build + WorkFolder::Staged + QLatin1Char('/');
    const QString name = QStringLiteral("pr\u00fcfung");
    removeFile(folder + name); // if it stays, the file is not made
    if (!writeWhole(folder + name, QByteArray(), false, error))
        return {};
    NameSense sense;
    sense.foldsCase = isSameFile(folder + name, folder + withOtherCase(name), error);
    sense.foldsUnicode = isSameFile(folder + name, folder + withOtherForm(name), error);
    if (!removeFile(folder + name))
        *error = FileError::ofSystem(folder + name, "cannot be removed: ");
    return error->isEmpty() ? std::optional(sense) : std::nullopt;
}

} // namespace Pellox
