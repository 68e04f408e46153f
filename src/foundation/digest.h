// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QCryptographicHash>

#include <memory>

class QIODevice;
struct evp_md_ctx_st;

namespace Pellox {

/**
 * A running digest: computed by OpenSSL's libcrypto where the library is built with it
 * and it has the algorithm, else by Qt. The results are the same, the speed is not.
 */
class Digest
{
public:
    explicit Digest(QCryptographicHash::Algorithm algorithm);

    void add(const char *data, qint64 size);
    /// The raw digest of all that was added; empty when it cannot be computed. Ends the
    /// computation.
    QByteArray finish();

private:
    struct ContextFree
    {
        void operator()(evp_md_ctx_st *context) const;
    };

    std::unique_ptr<evp_md_ctx_st, ContextFree> m_context; ///< libcrypto's; null where Qt computes
    [[maybe_unused]] bool m_failed = false;                ///< libcrypto refused something
    QCryptographicHash m_qtHash;
};

/// The raw digest of @p bytes; empty when it cannot be computed.
QByteArray digestOf(const QByteArray &bytes, QCryptographicHash::Algorithm algorithm);
/// The raw digest of what @p device still holds; empty when a read fails.
QByteArray digestOf(QIODevice &device, QCryptographicHash::Algorithm algorithm);

} // namespace Pellox
