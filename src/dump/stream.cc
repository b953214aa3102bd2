// zlib streams over a file: a compressing one that writes whole staging buffers, and a decompressing one that delivers
// exactly what is asked for. An error that zlib meets after the last byte asked for is kept for the next request.

#include <errno.h>
#include <unistd.h>

#include <cstring>

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "kab/core.h"
#include "kab/dump.h"

namespace kab::dump {
namespace {

constexpr const char* kZlibVersion = "1.3.1";
constexpr int kStreamStateSize = 112;

void* ZlibAlloc(void* opaque, unsigned items, unsigned size) { return KABCompressAlloc(opaque, items, size); }
void ZlibFree(void* opaque, void* block) { KABCompressFree(opaque, block); }

/// A stream's context, record and staging buffer, all zeroed; null when memory is exhausted.
KABCompressCtx* AllocStream(uint32_t fd, uint64_t startOffset) {
  auto ctx = AllocRecord<KABCompressCtx>();
  auto stream = AllocRecord<KABCompressStream>();
  auto buffer = AllocBytes(KAB_STREAM_BUFFER_SIZE);
  if (ctx == nullptr || stream == nullptr || buffer == nullptr) return nullptr;
  stream->zlib.zalloc = ZlibAlloc;
  stream->zlib.zfree = ZlibFree;
  stream->buffer = buffer.release();
  stream->bufferSize = KAB_STREAM_BUFFER_SIZE;
  stream->callbackCtx = ctx.get();
  ctx->fd = fd;
  ctx->fileOffset = startOffset;
  ctx->stream = stream.release();
  return ctx.release();
}

void FreeStream(KABCompressCtx* ctx) {
  KABFree(&ctx->stream->buffer);
  KABFree(&ctx->stream);
  KABFree(&ctx);
}

void PointAtWholeBuffer(KABCompressStream* stream) {
  stream->zlib.next_out = stream->buffer;
  stream->zlib.avail_out = static_cast<uInt>(stream->bufferSize);
}

uint32_t GiveUpFinish(KABCompressStream* stream) {
  KABCompressClear(stream);
  KABFree(&stream->buffer);
  return KAB_GENERAL_FAILURE;
}

}  // namespace
}  // namespace kab::dump

KABCompressCtx* KABCompressInit(uint32_t fd, uint64_t startOffset) {
  KABCompressCtx* ctx = kab::dump::AllocStream(fd, startOffset);
  if (ctx == nullptr) return nullptr;
  KABCompressStream* stream = ctx->stream;
  stream->callback.checkOutput = KABCompressCheckOutput;
  if (deflateInit_(&stream->zlib, Z_DEFAULT_COMPRESSION, kab::dump::kZlibVersion, kab::dump::kStreamStateSize) !=
      Z_OK) {
    kab::Log("Error: deflateInit failure.\n");
    kab::dump::FreeStream(ctx);
    return nullptr;
  }
  kab::dump::PointAtWholeBuffer(stream);
  return ctx;
}

uint32_t KABCompressCheckOutput(KABCompressCtx* ctx, uint32_t length, uint8_t advance) {
  const uint32_t st = KABDiskWrite(ctx->fd, ctx->stream->buffer, length, static_cast<int64_t>(ctx->fileOffset));
  if (st != KAB_OK) kab::Log("Error: Failed to write compressed data to file: %s\n", KABErrorStr(st));
  // Also after a failed write, on purpose: the offset moves by what was handed over.
  if (advance != 0) ctx->fileOffset += length;
  return st;
}

uint32_t KABCompressAppend(KABCompressCtx* ctx, const void* data, uint32_t length) {
  KABCompressStream* stream = ctx->stream;
  z_stream& zlib = stream->zlib;
  zlib.next_in = const_cast<Bytef*>(static_cast<const Bytef*>(data));
  zlib.avail_in = length;
  if (zlib.avail_out == 0) return KAB_GENERAL_FAILURE;
  if (length == 0) return KAB_OK;
  while (zlib.avail_in != 0) {
    const int result = deflate(&zlib, Z_NO_FLUSH);
    if (result != Z_OK) {
      kab::Log("Error: deflate failure: %s \n", zError(result));
      return KAB_GENERAL_FAILURE;
    }
    if (zlib.avail_out != 0) continue;
    const auto whole = static_cast<uint32_t>(stream->bufferSize);
    if (stream->callback.checkOutput(stream->callbackCtx, whole, 1) != KAB_OK) {
      kab::Log("Error: KABCompressCheckOutput failed: %s\n", KABErrorStr(KAB_GENERAL_FAILURE));
      return KAB_GENERAL_FAILURE;
    }
    kab::dump::PointAtWholeBuffer(stream);
  }
  return KAB_OK;
}

uint32_t KABCompressFinish(KABCompressCtx* ctx) {
  KABCompressStream* stream = ctx->stream;
  if (stream->buffer == nullptr) return KAB_GENERAL_FAILURE;  // finished before
  z_stream& zlib = stream->zlib;
  zlib.next_in = nullptr;
  zlib.avail_in = 0;
  for (;;) {
    const int result = deflate(&zlib, Z_FINISH);
    if (static_cast<unsigned>(result) > Z_STREAM_END) {
      kab::Log("Error: deflate failure: %s\n", zError(result));
      return kab::dump::GiveUpFinish(stream);
    }
    const auto filled = static_cast<uint32_t>(stream->bufferSize - zlib.avail_out);
    if (stream->callback.checkOutput(stream->callbackCtx, filled, 1) != KAB_OK) {
      kab::Log("Error: KABCompressCheckOutput failed: %s\n", KABErrorStr(KAB_GENERAL_FAILURE));
      return kab::dump::GiveUpFinish(stream);
    }
    kab::dump::PointAtWholeBuffer(stream);
    if (result == Z_STREAM_END) {
      const uint32_t st = KABCompressClear(stream);
      KABFree(&stream->buffer);
      return st;
    }
  }
}

uint32_t KABCompressClear(KABCompressStream* stream) {
  const int result = deflateEnd(&stream->zlib);
  if (result == Z_OK) return KAB_OK;
  kab::Log("Error: deflateEnd failure: %s.\n", zError(result));
  return KAB_GENERAL_FAILURE;
}

KABCompressCtx* KABDecompressInit(uint32_t fd, uint64_t startOffset) {
  KABCompressCtx* ctx = kab::dump::AllocStream(fd, startOffset);
  if (ctx == nullptr) return nullptr;
  ctx->stream->callback.input = KABDecompressInput;
  if (inflateInit_(&ctx->stream->zlib, kab::dump::kZlibVersion, kab::dump::kStreamStateSize) != Z_OK) {
    kab::dump::FreeStream(ctx);
    return nullptr;
  }
  return ctx;
}

uint32_t KABDecompressInput(KABCompressCtx* ctx, uint64_t* filled) {
  KABCompressStream* stream = ctx->stream;
  *filled = 0;
  while (*filled < stream->bufferSize) {
    uint8_t* rest = stream->buffer + *filled;
    const uint64_t wanted = stream->bufferSize - *filled;
    const ssize_t count = pread(static_cast<int>(ctx->fd), rest, wanted, static_cast<off_t>(ctx->fileOffset));
    if (count < 0) {
      kab::Log("Error: Failed to populate input for decompress\n");
      return KAB_GENERAL_FAILURE;
    }
    if (count == 0) {
      std::memset(rest, 0, wanted);
      return KAB_OK;
    }
    *filled += static_cast<uint64_t>(count);
    ctx->fileOffset += static_cast<uint64_t>(count);
  }
  return KAB_OK;
}

uint32_t KABGetDecompressedData(KABCompressCtx* ctx, void* dst, uint32_t length) {
  KABCompressStream* stream = ctx->stream;
  z_stream& zlib = stream->zlib;
  zlib.next_out = static_cast<Bytef*>(dst);
  zlib.avail_out = length;
  if (stream->postponedError != 0) {
    kab::Log("Error: Hit postponed error %d.\n", stream->postponedError);
    return KAB_GENERAL_FAILURE;
  }
  while (zlib.avail_out != 0) {
    // An ended stream delivers nothing more, whatever bytes lie behind it.
    if (stream->postponedError == Z_STREAM_END) return KAB_GENERAL_FAILURE;
    if (zlib.avail_in == 0) {
      uint64_t filled = 0;
      const uint32_t st = stream->callback.input(stream->callbackCtx, &filled);
      if (st != KAB_OK) return st;
      if (filled == 0) return KAB_GENERAL_FAILURE;  // the file ended before the stream did
      zlib.next_in = stream->buffer;
      zlib.avail_in = static_cast<uInt>(filled);
    }
    const int result = inflate(&zlib, Z_NO_FLUSH);
    if (result == Z_DATA_ERROR) {
      if (zlib.avail_out != 0) return KAB_GENERAL_FAILURE;
      stream->postponedError = result;
      break;
    }
    if (result == Z_STREAM_END) {
      stream->postponedError = result;
    } else if (result != Z_OK) {
      return KAB_GENERAL_FAILURE;
    }
  }
  stream->totalOut += length;
  return KAB_OK;
}

uint32_t KABDecompressFinish(KABCompressCtx* ctx) {
  const int result = inflateEnd(&ctx->stream->zlib);
  KABFree(&ctx->stream->buffer);
  return result == Z_OK ? KAB_OK : KAB_GENERAL_FAILURE;
}
