// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <string>
#include <utility>

/// Thrown before anything is touched when a command cannot be carried out as given.
class Refusal
{
public:
    Refusal(QString path, QString reason)
        : m_path(std::move(path))
        , m_reason(std::move(reason))
    {
    }
    const QString &path() const { return m_path; }
    const QString &reason() const { return m_reason; }

private:
    QString m_path;
    QString m_reason;
};

/*
 * Folder arguments. All become absolute and lose a separator at their end, so that the
 * relative paths of publisher and player match, whatever was typed.
 */

/// The folder @p argument. Throws Refusal unless it is there.
QString existingFolder(const std::string &argument);

/// Throws Refusal unless the folder @p folder is there.
void requireFolder(const QString &folder);

/// The folder @p argument, which may be missing. Throws Refusal when something else stands there,
/// or as requireWritable() does.
QString folderToFill(const std::string &argument);

/// Throws Refusal where nothing can be made in @p folder, or in the nearest above it that is there.
void requireWritable(const QString &folder);

/// Makes @p folder and those above it, as far as they are missing. Throws Refusal.
void makeFolder(const QString &folder);

/// ": " and why the system does not let @p path be made; nothing where that is not known.
QString systemReason(const QString &path);

/// The absolute path of @p argument, whatever stands there. Throws Refusal when it is empty.
QString absoluteFile(const std::string &argument);

/// Throws Refusal when one of the folders is the other or lies inside it, links followed.
void requireApart(const QString &folder, const QString &other);

/// Throws Refusal when @p path is @p folder or lies inside it, links followed.
void requireOutside(const QString &path, const QString &folder);

/// Whether something stands there, be it a link that leads nowhere.
bool isThere(const QString &path);

/// The same. Throws Refusal where the system does not tell.
bool standsThere(const QString &path);

/// Whether @p path is a folder and no link to one.
bool isRealFolder(const QString &path);

/// The path of @p name in @p folder; QDir takes a name that begins with ":" for one of a resource.
QString pathIn(const QString &folder, const QString &name);

/// @p path, or the nearest folder above it that exists.
QString existingAncestor(const QString &path);
