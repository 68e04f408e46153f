// SPDX-License-Identifier: MIT
#include "listing.h"

#include "folders.h"

#include <QFile>

#include <system_error>

namespace {

namespace fs = std::filesystem;

bool isHidden(const fs::path &path)
{
    return path.filename().string().front() == '.';
}

QString decodedName(const fs::path &path)
{
    const QByteArray bytes = QByteArray::fromStdString(path.string());
    QString name = QFile::decodeName(bytes);
    if (QFile::encodeName(name) != bytes) {
        throw Refusal(
            name, QStringLiteral("has a name that is not valid in the encoding of the locale"));
    }
    return name;
}

} // namespace

void visitEntries(const QString &folder, Hidden hidden, const EntryVisitor &visit)
{
    std::error_code problem;
    std::error_code ignored;
    for (fs::directory_iterator entry(QFile::encodeName(folder).toStdString(), problem), end;
         !problem && entry != end; entry.increment(problem)) {
        if (hidden == Hidden::LeftOut && isHidden(entry->path()))
            continue;
        const QString path = decodedName(entry->path());
        visit(*entry, path);
        if (entry->is_directory(ignored) && !entry->is_symlink(ignored))
            visitEntries(path, hidden, visit);
    }
    if (problem)
        throw Refusal(folder, QStringLiteral("cannot be listed"));
}
