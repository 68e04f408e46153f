// SPDX-License-Identifier: MIT
#include "blocksums.h"

#include "blocklanes.h"

#include <QtEndian>

#include <librsync.h>

#include <memory>
#include <new>

namespace Pellox {

namespace {

struct JobFree
{
    void operator()(rs_job_t *job) const { rs_job_free(job); }
};
using Job = std::unique_ptr<rs_job_t, JobFree>;

static_assert(SignatureFormat::Magic == RS_BLAKE2_SIG_MAGIC);
static_assert(sizeof(BlockRecord) == SignatureFormat::RecordLength);

template <typename Buffer> void provide(rs_buffers_t &buffers, Buffer &output)
{
    buffers.next_out = reinterpret_cast<char *>(output.data());
    buffers.avail_out = output.size() * sizeof(output[0]);
}

void computeByLibrsync(const uchar *data, std::size_t size, std::vector<BlockRecord> *records)
{
    records->resize(
        static_cast<std::size_t>(SignatureFormat::blockCount(static_cast<qint64>(size))));
    const Job job(rs_sig_begin(
        SignatureFormat::BlockLength, SignatureFormat::StrongSumLength, RS_BLAKE2_SIG_MAGIC));
    if (!job)
        throw std::bad_alloc();
    rs_buffers_t buffers{};
    std::array<uchar, SignatureFormat::HeaderLength> header{};
    provide(buffers, header);
    if (rs_job_iter(job.get(), &buffers) != RS_BLOCKED || buffers.avail_out != 0)
        throw std::bad_alloc();

    // librsync reads what is before its end pointer only, but does not say so in the type.
    buffers.next_in = const_cast<char *>(reinterpret_cast<const char *>(data));
    buffers.avail_in = size;
    buffers.eof_in = 1;
    provide(buffers, *records);
    // With room for all that it writes, nothing else can go wrong.
    if (rs_job_iter(job.get(), &buffers) != RS_DONE || buffers.avail_out != 0)
        throw std::bad_alloc();
}

} // namespace

quint32 weakSumOf(const BlockRecord &record)
{
    return qFromBigEndian<quint32>(record.data());
}

const std::array<uchar, SignatureFormat::HeaderLength> &signatureHeader()
{
    static const auto header = [] {
        std::array<uchar, SignatureFormat::HeaderLength> bytes{};
        qToBigEndian<quint32>(SignatureFormat::Magic, bytes.data());
        qToBigEndian<quint32>(SignatureFormat::BlockLength, bytes.data() + 4);
        qToBigEndian<quint32>(SignatureFormat::StrongSumLength, bytes.data() + 8);
        return bytes;
    }();
    return header;
}

void computeBlockSums(const uchar *data, std::size_t size, std::vector<BlockRecord> *records)
{
    static const BlockSumMethod fastest = blockSumMethods().back();
    fastest.compute(data, size, records);
}

std::vector<BlockSumMethod> blockSumMethods()
{
    std::vector<BlockSumMethod> methods = BlockLanes::methods();
    methods.insert(methods.begin(), {"librsync", computeByLibrsync});
    return methods;
}

} // namespace Pellox
