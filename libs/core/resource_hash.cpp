#include "core/resource_hash.h"

#include <cerrno>
#include <memory>
#include <vector>

#include "core/sha1.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/file_stream.h"

namespace core {
namespace {

// The algorithm reads a fixed amount at fixed places and feeds the whole buffer whatever came
// back: the threshold keeps every sample inside the file. A read that fails or comes back
// short (the file shrank meanwhile) leaves the rest of the buffer zero rather than failing.
void readAt(fn::FileInputStream& file, int64_t offset, std::vector<uint8_t>& buffer) {
  std::fill(buffer.begin(), buffer.end(), 0);
  try {
    file.seek(offset);
    size_t done = 0;
    while (done < buffer.size()) {
      size_t n = file.read(buffer.data() + done, buffer.size() - done);
      if (n == 0)
        break;
      done += n;
    }
  } catch (fn::FileException const&) {
  }
}

}  // namespace

fn::String ResourceHash::forFile(fn::String const& path) {
  fn::FileInputStream file(path);
  // A directory opens like a file but has no bytes to read.
  if (fn::File(path).isDirectory())
    fn::throwFileError("open", path, EISDIR);
  int64_t size = file.size();
  Sha1 sha1;
  uint8_t length[8];
  for (int i = 0; i < 8; ++i)
    length[i] = static_cast<uint8_t>(static_cast<uint64_t>(size) >> (8 * i));
  sha1.update(length, sizeof length);

  if (size < WHOLE_FILE_LIMIT) {
    std::vector<uint8_t> whole(static_cast<size_t>(size));
    readAt(file, 0, whole);
    sha1.update(whole.data(), whole.size());
    return sha1.hex();
  }
  std::vector<uint8_t> sample(SAMPLE_SIZE);
  int64_t step = size / SAMPLE_COUNT;
  for (int i = 0; i < SAMPLE_COUNT; ++i) {
    readAt(file, i * step, sample);
    sha1.update(sample.data(), sample.size());
  }
  // The tail: up to one more sample from the end, when the last sample left a gap there.
  int64_t tail = std::min(step - SAMPLE_SIZE, SAMPLE_SIZE);
  if (tail >= 1) {
    sample.resize(static_cast<size_t>(tail));
    readAt(file, size - tail, sample);
    sha1.update(sample.data(), sample.size());
  }
  return sha1.hex();
}

}  // namespace core
