#pragma once

#include <protozero/types.hpp>

/// The fields of pprof's message "profile.proto" that we write, by their numbers.
namespace kolvan::profiler::pprof {

enum class ProfileField : protozero::pbf_tag_type {
    SampleType = 1,
    Sample = 2,
    Mapping = 3,
    Location = 4,
    Function = 5,
    StringTable = 6,
    TimeNanos = 9,
    DurationNanos = 10,
    PeriodType = 11,
    Period = 12,
    Comment = 13,
};

enum class ValueTypeField : protozero::pbf_tag_type { Type = 1, Unit = 2 };

enum class SampleField : protozero::pbf_tag_type { LocationId = 1, Value = 2, Label = 3 };

enum class LabelField : protozero::pbf_tag_type { Key = 1, Text = 2, Number = 3, NumberUnit = 4 };

enum class MappingField : protozero::pbf_tag_type {
    Id = 1,
    MemoryStart = 2,
    MemoryLimit = 3,
    FileOffset = 4,
    FileName = 5,
    BuildId = 6,
    HasFunctions = 7,
    HasFileNames = 8,
    HasLineNumbers = 9,
    HasInlineFrames = 10,
};

enum class LocationField : protozero::pbf_tag_type { Id = 1, MappingId = 2, Address = 3, Line = 4 };

enum class LineField : protozero::pbf_tag_type { FunctionId = 1, Number = 2 };

enum class FunctionField : protozero::pbf_tag_type { Id = 1, Name = 2, SystemName = 3, File = 4 };

}  // namespace kolvan::profiler::pprof
