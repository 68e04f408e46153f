// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

/*
 * What the fuzz targets share. Each target defines the two functions below; libFuzzer's own are in
 * fuzzing.cpp. Run with LC_ALL=C.UTF-8 and files in memory, whatever the caller's environment says.
 */

/// Once, before the first input.
void prepare();
/// Ends the process where @p input breaks what is promised.
void tryInput(const QByteArray &input);

QString operator""_s(const char *text, size_t size);

/// Ends the process with @p promise as the reason, for libFuzzer to keep the input.
[[noreturn]] void reportBroken(const char *promise);
void require(bool holds, const char *promise);

/// Replaces the file at @p path, whose folder is there.
void writeFile(const QString &path, const QByteArray &content);
QByteArray readFile(const QString &path);

/// Whether @p relativePath, appended to a folder, is a file inside of it in its one plain form.
bool staysInside(const QString &relativePath);

/// A key of Ed25519 that everybody knows.
struct TestKey
{
    const char *secret; ///< 32 bytes in hexadecimal text
    const char *open;

    QByteArray privatePem() const;
    QByteArray publicPem() const;
};
// The first two of RFC 8032, section 7.1.
extern const TestKey OurKey;
extern const TestKey StrangersKey;

/// Writes both files of @p key into @p folder. The path of the private one; ".pub" makes it that of
/// the public one.
QString writeKey(const TestKey &key, const QString &folder);

/// What is in a folder, see TestTree::snapshot().
using Snapshot = QMap<QString, QByteArray>;
/// @p entries without folders.
Snapshot filesOf(const Snapshot &entries);
