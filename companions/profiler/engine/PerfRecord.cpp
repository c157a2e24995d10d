#include "companions/profiler/engine/PerfRecord.h"

#include "companions/profiler/engine/PerfEvent.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>

#include <sys/mman.h>
#include <sys/sysmacros.h>

namespace kolvan::profiler {

namespace {

/// What `sample_id_all` appends to every record that is no sample, by our `sample_type`.
struct Trailer {
    std::uint32_t process;
    std::uint32_t thread;
    std::uint64_t time;
};

/// Reads the fields of a record one after the other; what would lie behind its end is zero.
class Fields {
public:
    explicit Fields(const perf_event_header& record)
        : next(reinterpret_cast<const std::byte*>(&record) + sizeof record),
          left(std::max<std::size_t>(record.size, sizeof record) - sizeof record) {}

    template <typename Field>
    Field take() {
        Field field{};
        const std::byte* const bytes = skip(sizeof field);
        if (bytes != nullptr) {
            std::memcpy(&field, bytes, sizeof field);
        }
        return field;
    }

    std::size_t remaining() const noexcept { return left; }

    /// @return null when there is less; then nothing is left
    const std::byte* skip(std::size_t bytes) {
        if (bytes > left) {
            left = 0;
            return nullptr;
        }
        left -= bytes;
        return std::exchange(next, next + bytes);
    }

    /// A text that ends in NUL; padding and a trailer may follow it.
    std::string text() const {
        const char* const characters = reinterpret_cast<const char*>(next);
        return std::string(characters, ::strnlen(characters, left));
    }

private:
    const std::byte* next;
    std::size_t left;
};

Trailer trailerOf(const perf_event_header& record) {
    Trailer trailer{};
    if (record.size >= sizeof record + sizeof trailer) {
        std::memcpy(&trailer,
                    reinterpret_cast<const std::byte*>(&record) + record.size - sizeof trailer,
                    sizeof trailer);
    }
    return trailer;
}

/// The start of a sample, by our `sample_type`.
struct SampleStart {
    std::uint64_t instruction;
    std::uint32_t process;
    std::uint32_t thread;
    std::uint64_t time;
};

std::optional<Registers> takeRegisters(Fields& fields) {
    // DWARF numbers in the order in which the kernel writes the registers that we ask for.
    constexpr std::array<std::size_t, 17> kDwarfNumbers{0, 3, 2,  1,  4,  5,  6,  7, 16,
                                                        8, 9, 10, 11, 12, 13, 14, 15};
    const auto abi = fields.take<std::uint64_t>();
    if (abi == PERF_SAMPLE_REGS_ABI_NONE) {
        return std::nullopt;
    }
    Registers registers;
    for (const std::size_t number : kDwarfNumbers) {
        registers.values.at(number) = fields.take<std::uint64_t>();
    }
    return abi == PERF_SAMPLE_REGS_ABI_64 ? std::optional(registers) : std::nullopt;
}

std::span<const std::byte> takeStack(Fields& fields) {
    const auto room = fields.take<std::uint64_t>();
    const std::byte* const bytes = fields.skip(room);
    const auto copied = room == 0 ? 0 : fields.take<std::uint64_t>();
    return bytes == nullptr || copied > room ? std::span<const std::byte>()
                                             : std::span(bytes, copied);
}

/// The kernel puts marks between addresses to say where those that follow belong to.
bool isMark(std::uint64_t address) {
    constexpr auto kMarks = static_cast<std::uint64_t>(PERF_CONTEXT_MAX);
    return address >= kMarks;
}

std::span<const std::uint64_t> takeKernelAddresses(Fields& fields) {
    const auto count = fields.take<std::uint64_t>();
    const bool fits = count <= fields.remaining() / sizeof(std::uint64_t);
    const std::byte* const bytes =
        fields.skip(fits ? count * sizeof(std::uint64_t) : fields.remaining() + 1);
    if (bytes == nullptr) {
        return {};
    }
    // Records and their fields are aligned to 8 bytes.
    std::span addresses(reinterpret_cast<const std::uint64_t*>(bytes), count);
    while (!addresses.empty() && isMark(addresses.front())) {
        addresses = addresses.subspan(1);
    }
    return addresses;
}

void deliverSample(const perf_event_header& record, std::uint64_t period, EventSink& sink) {
    Fields fields(record);
    const auto start = fields.take<SampleStart>();
    StackSample sample;
    sample.time = start.time;
    sample.process = static_cast<pid_t>(start.process);
    sample.thread = static_cast<pid_t>(start.thread);
    sample.nanoseconds = period;
    sample.kernelAddresses = takeKernelAddresses(fields);
    sample.registers = takeRegisters(fields);
    sample.stack = takeStack(fields);
    sink.onSample(sample);
}

void deliverMapping(const perf_event_header& record, EventSink& sink) {
    // PERF_RECORD_MMAP2, without a build-id.
    struct Body {
        std::uint32_t process, thread;
        std::uint64_t address, length, offset;
        std::uint32_t major, minor;
        std::uint64_t inode, generation;
        std::uint32_t protection, flags;
    };
    Fields fields(record);
    const auto body = fields.take<Body>();
    if ((body.protection & PROT_EXEC) == 0) {
        return;
    }
    CodeMapping mapping;
    mapping.process = static_cast<pid_t>(body.process);
    mapping.begin = body.address;
    mapping.end = body.address + body.length;
    mapping.fileOffset = body.offset;
    mapping.device = ::makedev(body.major, body.minor);
    mapping.inode = body.inode;
    mapping.path = fields.text();
    sink.onMapping(mapping);
}

/// PERF_RECORD_FORK and PERF_RECORD_EXIT.
struct TaskBody {
    std::uint32_t process;
    std::uint32_t parent;
    std::uint32_t thread;
    std::uint32_t parentThread;
};

void deliverTask(const perf_event_header& record, EventSink& sink) {
    const auto body = Fields(record).take<TaskBody>();
    const auto process = static_cast<pid_t>(body.process);
    const auto thread = static_cast<pid_t>(body.thread);
    if (record.type == PERF_RECORD_FORK) {
        sink.onStart(process, thread, static_cast<pid_t>(body.parent));
    } else {
        sink.onEnd(process, thread);
    }
}

void deliverName(const perf_event_header& record, EventSink& sink) {
    struct Body {
        std::uint32_t process, thread;
    };
    Fields fields(record);
    const auto body = fields.take<Body>();
    if ((record.misc & PERF_RECORD_MISC_COMM_EXEC) != 0) {
        sink.onExec(static_cast<pid_t>(body.process));
    }
    sink.onName(static_cast<pid_t>(body.process), static_cast<pid_t>(body.thread), fields.text());
}

void deliverTurn(const perf_event_header& record, EventSink& sink) {
    const Trailer trailer = trailerOf(record);
    const bool out = (record.misc & PERF_RECORD_MISC_SWITCH_OUT) != 0;
    const bool taken = (record.misc & PERF_RECORD_MISC_SWITCH_OUT_PREEMPT) != 0;
    sink.onTurn(static_cast<pid_t>(trailer.process), static_cast<pid_t>(trailer.thread),
                !out    ? ThreadTurn::Runs
                : taken ? ThreadTurn::Runnable
                        : ThreadTurn::Waits,
                trailer.time);
}

}  // namespace

std::uint64_t timeOf(const perf_event_header& record) {
    return record.type == PERF_RECORD_SAMPLE ? Fields(record).take<SampleStart>().time
                                             : trailerOf(record).time;
}

pid_t processOf(const perf_event_header& record) {
    switch (record.type) {
        case PERF_RECORD_SAMPLE:
            return static_cast<pid_t>(Fields(record).take<SampleStart>().process);
        case PERF_RECORD_MMAP2:
        case PERF_RECORD_COMM:
        case PERF_RECORD_FORK:
        case PERF_RECORD_EXIT:
            return static_cast<pid_t>(Fields(record).take<std::uint32_t>());
        default:
            return static_cast<pid_t>(trailerOf(record).process);
    }
}

pid_t startedThreadOf(const perf_event_header& record) {
    return static_cast<pid_t>(Fields(record).take<TaskBody>().thread);
}

std::uint64_t lossOf(const perf_event_header& record) {
    Fields fields(record);
    switch (record.type) {
        case PERF_RECORD_LOST:
            (void)fields.take<std::uint64_t>();  // the event's number
            return fields.take<std::uint64_t>();
        case PERF_RECORD_LOST_SAMPLES:
            return fields.take<std::uint64_t>();
        default:
            return 0;
    }
}

void deliverRecord(const perf_event_header& record, std::uint64_t period, EventSink& sink) {
    switch (record.type) {
        case PERF_RECORD_SAMPLE:
            return deliverSample(record, period, sink);
        case PERF_RECORD_MMAP2:
            return deliverMapping(record, sink);
        case PERF_RECORD_FORK:
        case PERF_RECORD_EXIT:
            return deliverTask(record, sink);
        case PERF_RECORD_COMM:
            return deliverName(record, sink);
        case PERF_RECORD_SWITCH:
            return deliverTurn(record, sink);
        default:
            return;
    }
}

}  // namespace kolvan::profiler
