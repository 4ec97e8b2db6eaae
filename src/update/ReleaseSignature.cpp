#include "update/ReleaseSignature.h"

#include <QFile>

#include <openssl/evp.h>

#include <memory>

namespace {

struct PkeyFree
{
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};
struct MdCtxFree
{
    void operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }
};

} // namespace

namespace ReleaseSignature {

QByteArray builtInKey()
{
    return QByteArray::fromBase64(QByteArrayLiteral(VANTREL_RELEASE_PUBLIC_KEY));
}

bool verify(const QString &path, const QByteArray &signature, const QByteArray &publicKey)
{
    if (signature.size() != 64 || publicKey.size() != 32)
        return false;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > largestArchiveBytes)
        return false;
    // Ed25519 hashes the message twice, so it cannot be fed in pieces: map the file instead of
    // copying it.
    const qint64 size = file.size();
    const uchar *data = size > 0 ? file.map(0, size) : nullptr;
    if (size > 0 && !data)
        return false;

    std::unique_ptr<EVP_PKEY, PkeyFree> key(EVP_PKEY_new_raw_public_key(
        EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char *>(publicKey.constData()),
        size_t(publicKey.size())));
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> context(EVP_MD_CTX_new());
    if (!key || !context ||
        EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1)
        return false;
    static const unsigned char empty = 0;
    return EVP_DigestVerify(context.get(),
                            reinterpret_cast<const unsigned char *>(signature.constData()),
                            size_t(signature.size()), data ? data : &empty, size_t(size)) == 1;
}

} // namespace ReleaseSignature
