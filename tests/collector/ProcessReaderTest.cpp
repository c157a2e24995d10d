#include "collector/ProcessReader.h"

#include "basekit2/object_registry.h"
#include "collector/ProcessFeedbackReader.h"
#include "collector/ProcessOutputReader.h"
#include "tests/basekit2/ProcessSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kolvan::test {

using basekit2::get_object_registry;
using basekit2::make_ref_counted;
using basekit2::ref_ptr_t;
using basekit2::result_t;
using basekit2::process::environment_t;
using basekit2::process::IPipeReaderCallback;
using basekit2::process::IProcess;
using cagnt1::operations::ProcessFeedbackReader;
using cagnt1::operations::ProcessOutputReader;
using cagnt1::operations::ProcessReader;

namespace {

using Texts = std::vector<std::string>;

/// A process that keeps what was connected to it and answers as it is told.
class FakeProcess : public IProcess {
public:
    result_t answer = result_t::no_error();
    std::string descriptorText = "3";
    std::vector<std::int32_t> connectedStreams;
    std::vector<ref_ptr_t<IPipeReaderCallback>> receivers;

    result_t connectOutputStream(std::int32_t streamNumber,
                                 const ref_ptr_t<IPipeReaderCallback>& reader) override {
        connectedStreams.push_back(streamNumber);
        receivers.push_back(reader);
        return answer;
    }
    result_t openOutputPipe(const ref_ptr_t<IPipeReaderCallback>& reader,
                            std::string& childDescriptor) override {
        receivers.push_back(reader);
        if (answer == result_t::no_error()) {
            childDescriptor = descriptorText;
        }
        return answer;
    }

    result_t start(const std::string&, basekit2::generic_iterator_t<std::string>,
                   const ref_ptr_t<environment_t>&, const std::string&, std::uint32_t,
                   std::uint32_t, std::int32_t) override {
        throw std::logic_error("a reader starts nothing");
    }
    int wait() override { throw std::logic_error("a reader waits for nothing"); }
    result_t terminate() override { throw std::logic_error("a reader ends nothing"); }
    const std::string& get_type() const override {
        static const std::string type = "FakeProcess";
        return type;
    }
};

class ProcessReaderTest : public ::testing::Test {
protected:
    std::function<void(const std::string&)> recorder() {
        return [this](const std::string& text) { received.push_back(text); };
    }

    /// Both kinds share what is done with the data.
    std::vector<ref_ptr_t<ProcessReader>> bothKinds(
        const std::function<void(const std::string&)>& callback) {
        return {make_ref_counted<ProcessOutputReader>(callback, 1),
                make_ref_counted<ProcessFeedbackReader>(callback)};
    }

    ref_ptr_t<FakeProcess> process = make_ref_counted<FakeProcess>();
    Texts received;
};

}  // namespace

TEST_F(ProcessReaderTest, ChunkIsOneCallWithExactlyItsBytes) {
    const std::string bytes("a\0b\xFF\n\n", 6);
    for (const auto& reader : bothKinds(recorder())) {
        received.clear();

        EXPECT_EQ(result_t::no_error(), reader->onData(bytes.data(), 6));

        EXPECT_EQ(Texts{bytes}, received);
    }
}

TEST_F(ProcessReaderTest, NothingBehindTheLengthIsRead) {
    for (const auto& reader : bothKinds(recorder())) {
        received.clear();

        EXPECT_EQ(result_t::no_error(), reader->onData("text and more", 4));

        EXPECT_EQ(Texts{"text"}, received);
    }
}

TEST_F(ProcessReaderTest, EmptyChunkIsOneCallWithAnEmptyText) {
    for (const auto& reader : bothKinds(recorder())) {
        received.clear();

        EXPECT_EQ(result_t::no_error(), reader->onData("text", 0));

        EXPECT_EQ(Texts{""}, received);
    }
}

TEST_F(ProcessReaderTest, SeveralLinesAndHalfLinesPassAsTheyStand) {
    for (const auto& reader : bothKinds(recorder())) {
        received.clear();

        (void)reader->onData("one\ntwo\nth", 10);
        (void)reader->onData("r", 1);
        (void)reader->onData("ee\n", 3);

        EXPECT_EQ((Texts{"one\ntwo\nth", "r", "ee\n"}), received);
    }
}

TEST_F(ProcessReaderTest, LargeChunkStaysOneCall) {
    const std::string bytes(1000000, 'x');
    for (const auto& reader : bothKinds(recorder())) {
        received.clear();

        EXPECT_EQ(result_t::no_error(),
                  reader->onData(bytes.data(), static_cast<std::int32_t>(bytes.size())));

        EXPECT_EQ(Texts{bytes}, received);
    }
}

TEST_F(ProcessReaderTest, EmptyCallbackDropsTheDataAndReportsSuccess) {
    for (const auto& reader : bothKinds({})) {
        EXPECT_EQ(result_t::no_error(), reader->onData("text", 4));
        EXPECT_EQ(result_t::no_error(), reader->onData("", 0));
    }
}

TEST_F(ProcessReaderTest, ExceptionOfTheCallbackPasses) {
    for (const auto& reader :
         bothKinds([](const std::string&) { throw std::runtime_error("no room"); })) {
        EXPECT_THROW((void)reader->onData("text", 4), std::runtime_error);
    }
}

TEST_F(ProcessReaderTest, IsNotAttachedAtFirstNorByItsOwnDoing) {
    for (const auto& reader : bothKinds(recorder())) {
        EXPECT_FALSE(reader->attached);

        EXPECT_EQ(result_t::no_error(), reader->attach(*process));

        EXPECT_FALSE(reader->attached);
    }
}

TEST_F(ProcessReaderTest, HasNoRegisteredType) {
    for (const auto& reader : bothKinds(recorder())) {
        EXPECT_EQ("dasID_None", reader->get_type());
    }
}

TEST_F(ProcessReaderTest, OutputReaderConnectsTheStreamOfItsNumber) {
    const auto standardOutput = make_ref_counted<ProcessOutputReader>(recorder(), 1);
    const auto standardError = make_ref_counted<ProcessOutputReader>(recorder(), 2);

    EXPECT_EQ(result_t::no_error(), standardError->attach(*process));
    EXPECT_EQ(result_t::no_error(), standardOutput->attach(*process));

    EXPECT_EQ((std::vector<std::int32_t>{2, 1}), process->connectedStreams);
    ASSERT_EQ(2U, process->receivers.size());
    EXPECT_EQ(standardError.get(), process->receivers[0].get());
    EXPECT_EQ(standardOutput.get(), process->receivers[1].get());
}

TEST_F(ProcessReaderTest, OutputReaderHandsOnWhateverTheFacilityReports) {
    const auto reader = make_ref_counted<ProcessOutputReader>(recorder(), 1);
    for (const result_t answer : {result_t::no_error(), result_t(), result_t::from_errno(EMFILE)}) {
        process->answer = answer;

        EXPECT_EQ(answer, reader->attach(*process));
    }
}

TEST_F(ProcessReaderTest, FeedbackReaderBeginsWithTheOptionsOfTheFormat) {
    const auto reader = make_ref_counted<ProcessFeedbackReader>(recorder());

    EXPECT_EQ((Texts{"--ui-output-format", "xml"}), reader->extraArguments);
}

TEST_F(ProcessReaderTest, FeedbackReaderAddsTheDescriptorThatItIsTold) {
    const auto reader = make_ref_counted<ProcessFeedbackReader>(recorder());
    process->descriptorText = "17";

    EXPECT_EQ(result_t::no_error(), reader->attach(*process));

    EXPECT_EQ((Texts{"--ui-output-format", "xml", "--ui-output-fd", "17"}), reader->extraArguments);
    ASSERT_EQ(1U, process->receivers.size());
    EXPECT_EQ(reader.get(), process->receivers[0].get());
}

TEST_F(ProcessReaderTest, FeedbackReaderAddsNothingWhenThereIsNoPipe) {
    const auto reader = make_ref_counted<ProcessFeedbackReader>(recorder());
    process->answer = result_t::from_errno(EMFILE);

    EXPECT_EQ(result_t::from_errno(EMFILE), reader->attach(*process));

    EXPECT_EQ((Texts{"--ui-output-format", "xml"}), reader->extraArguments);
}

TEST_F(ProcessReaderTest, LivesAsLongAsTheFacilityHoldsIt) {
    for (auto reader : bothKinds(recorder())) {
        received.clear();
        ASSERT_EQ(result_t::no_error(), reader->attach(*process));

        reader = ref_ptr_t<ProcessReader>();

        EXPECT_EQ(result_t::no_error(), process->receivers.back()->onData("late", 4));
        EXPECT_EQ(Texts{"late"}, received);
    }
}

TEST(ProcessTypesTest, InterfacesOfTheFacilityAreRegisteredAtProgramStart) {
    for (const std::string name :
         {"dasID_basekit2::process::IProcess", "dasID_constbasekit2::process::IProcess",
          "dasID_basekit2::serializable_object_interface_t",
          "dasID_constbasekit2::serializable_object_interface_t"}) {
        EXPECT_TRUE(get_object_registry().is_registered(name)) << name;
    }
}

TEST(ProcessTypesTest, InterfacesAreRegisteredSoThatOthersCanShareThem) {
    for (const char* name :
         {"dasID_basekit2::process::IProcess", "dasID_constbasekit2::process::IProcess",
          "dasID_basekit2::serializable_object_interface_t",
          "dasID_constbasekit2::serializable_object_interface_t"}) {
        EXPECT_TRUE(get_object_registry().is_registered(name)) << name;
    }
}

}  // namespace kolvan::test
