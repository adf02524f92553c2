#include "lab/Buffers.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace lab {

char* ByteBuffer::Reserve(std::size_t bytes) {
    if (capacity - end >= bytes) return memory.get() + end;
    const std::size_t size = Size();
    if (capacity - size >= bytes) {
        std::memmove(memory.get(), memory.get() + begin, size);
    } else {
        capacity = std::max(2 * capacity, size + bytes);
        std::unique_ptr<char[]> larger(new char[capacity]);
        if (size > 0) std::memcpy(larger.get(), memory.get() + begin, size);
        memory = std::move(larger);
    }
    begin = 0;
    end = size;
    return memory.get() + end;
}

void ByteBuffer::Append(std::string_view bytes) {
    std::copy(bytes.begin(), bytes.end(), Reserve(bytes.size()));
    Commit(bytes.size());
}

void ByteBuffer::Consume(std::size_t bytes) {
    begin += bytes;
    if (begin == end) begin = end = 0;
}

std::string_view Outbox::Next() {
    if (leaving.Size() == 0) std::swap(leaving, gathering);
    return leaving.Bytes();
}

void Outbox::Sent(std::size_t bytes) {
    leaving.Consume(bytes);
    sent += bytes;
}

}  // namespace lab
