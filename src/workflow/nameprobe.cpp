// SPDX-License-Identifier: MIT
#include "nameprobe.h"

#include "filesystem.h"
#include "wholefile.h"
#include "workfolder.h"

#include <QDirIterator>

namespace Pellox {

namespace {

bool isSameFile(const QString &path, const QString &other)
{
    const auto status = statusOf(path);
    const auto otherStatus = statusOf(other);
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

/// Learns from files that are there, until it knows.
class Witness
{
public:
    explicit Witness(NameSense sense = {})
        : m_sense(sense)
        , m_caseIsKnown(sense.foldsCase)
        , m_unicodeIsKnown(sense.foldsUnicode)
    {
    }

    void hear(const QString &folder, const QString &name)
    {
        const bool tellsCase = !m_caseIsKnown && withOtherCase(name) != name;
        const bool tellsUnicode = !m_unicodeIsKnown && withOtherForm(name) != name;
        if ((!tellsCase && !tellsUnicode) || !statusOf(folder + name))
            return;
        const auto isSame = [&](const QString &otherName) {
            return isSameFile(folder + name, folder + otherName);
        };
        m_sense.foldsCase |= tellsCase && isSame(withOtherCase(name));
        m_sense.foldsUnicode |= tellsUnicode && isSame(withOtherForm(name));
        m_caseIsKnown |= tellsCase;
        m_unicodeIsKnown |= tellsUnicode;
    }

    bool knowsAll() const { return m_caseIsKnown && m_unicodeIsKnown; }
    NameSense sense() const { return m_sense; }

private:
    NameSense m_sense;
    bool m_caseIsKnown;
    bool m_unicodeIsKnown;
};

} // namespace

NameSense seenNameSense(const QString &build, const std::vector<UpdateRule> &rules)
{
    Witness files;
    for (const UpdateRule &rule : rules) {
        const QString path = build + rule.relativePath;
        const int nameStart = path.lastIndexOf(QLatin1Char('/')) + 1;
        files.hear(path.left(nameStart), path.mid(nameStart));
    }
    // A folder may have a sense of its own, so this does not take back what the files have told.
    Witness entries(files.sense());
    QDirIterator entry(
        build, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    while (entry.hasNext() && !entries.knowsAll()) {
        entry.next();
        entries.hear(build + QLatin1Char('/'), entry.fileName());
    }
    return entries.sense();
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
    sense.foldsCase = isSameFile(folder + name, folder + withOtherCase(name));
    sense.foldsUnicode = isSameFile(folder + name, folder + withOtherForm(name));
    if (removeFile(folder + name))
        return sense;
    *error = FileError::ofSystem(folder + name, "cannot be removed: ");
    return {};
}

} // namespace Pellox
