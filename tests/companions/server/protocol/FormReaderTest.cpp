#include "companions/server/protocol/FormReader.h"

#include "companions/server/protocol/Base64Decoder.h"

#include <gtest/gtest.h>

#include <string>

namespace kolvan::server::protocol {
namespace {

// Writes down what it is told: "(name|file:data)" for each part.
class Notes final : public FormListener {
public:
    void beginPart(const std::string& name, const std::optional<std::string>& fileName) override {
        all += "(" + name + (fileName ? "|" + *fileName : "") + ":";
    }
    void data(std::string_view piece) override {
        EXPECT_FALSE(piece.empty());
        all += piece;
    }
    void endPart() override { all += ")"; }

    std::string all;
};

std::string read(std::string_view text, std::size_t pieceLength = 100'000,
                 const std::string& boundary = "XY") {
    Notes notes;
    FormReader reader(boundary, notes);
    try {
        while (!text.empty()) {
            reader.put(text.substr(0, pieceLength));
            text.remove_prefix(std::min(pieceLength, text.size()));
        }
        reader.finish();
    } catch (const ProtocolError& error) {
        return notes.all + " error " + std::to_string(error.place());
    }
    return notes.all;
}

const std::string kFile =
    "--XY\r\nContent-Disposition: form-data; name=\"traces/data.0\"; filename=\"profile.pb.gz\"\r\n"
    "Content-Type: application/octet-stream\r\n\r\n";
const std::string kSubmit =
    "\r\n--XY\r\nContent-Disposition: form-data; name=\"submit\"\r\n\r\nsend\r\n--XY--\r\n";

TEST(FormReaderTest, UploadOfAnAgent) {
    EXPECT_EQ("(traces/data.0|profile.pb.gz:content)(submit:send)",
              read(kFile + "content" + kSubmit));
}

TEST(FormReaderTest, PiecesMayEndAnywhere) {
    const std::string text = kFile + "\r\n-\r\n--\r\n--X\r\r\n--Xcontent\r" + kSubmit;
    const std::string whole = read(text);
    EXPECT_EQ("(traces/data.0|profile.pb.gz:\r\n-\r\n--\r\n--X\r\r\n--Xcontent\r)(submit:send)",
              whole);
    for (std::size_t length = 1; length < text.size(); ++length) {
        EXPECT_EQ(whole, read(text, length)) << length;
    }
}

TEST(FormReaderTest, FilesMayBeEmpty) {
    EXPECT_EQ("(traces/data.0|profile.pb.gz:)(submit:send)", read(kFile + kSubmit));
}

TEST(FormReaderTest, LargeFileGoesThroughInPieces) {
    std::string content;
    while (content.size() < 300'000) {
        content += std::to_string(content.size()) + "\r\n--";
    }

    EXPECT_EQ("(traces/data.0|profile.pb.gz:" + content + ")(submit:send)",
              read(kFile + content + kSubmit, 65'536));
}

TEST(FormReaderTest, WhatStandsAroundThePartsIsPassedOver) {
    EXPECT_EQ("(traces/data.0|profile.pb.gz:x)(submit:send)",
              read("preamble\r\n" + kFile + "x" + kSubmit + "epilogue\r\n--XY\r\n"));
}

TEST(FormReaderTest, BlanksMayFollowABoundary) {
    EXPECT_EQ("(a:b)",
              read("--XY \t\r\nContent-Disposition: form-data; name=a\r\n\r\nb\r\n--XY--"));
}

TEST(FormReaderTest, NamesMayBeQuotedOrNot) {
    const auto nameIn = [](const std::string& field) {
        return read("--XY\r\n" + field + "\r\n\r\n\r\n--XY--");
    };
    EXPECT_EQ("(a:)", nameIn("Content-Disposition: form-data; name=a"));
    EXPECT_EQ("(a|b c:)", nameIn("content-disposition:form-data;name=a ; FileName=\"b c\""));
    EXPECT_EQ("(a\"b\\c|d;e=f:)",
              nameIn(R"(Content-Disposition: form-data; name="a\"b\\c"; filename="d;e=f")"));
    EXPECT_EQ("(C:\\temp|:)",
              nameIn(R"(Content-Disposition: form-data; name="C:\temp"; filename="")"));
}

TEST(FormReaderTest, PartWithoutANameIsRefused) {
    for (const char* field :
         {"Content-Type: text/plain", "Content-Disposition: form-data",
          "Content-Disposition: attachment; name=a", "Content-Disposition: form-data; name=\"a",
          "Content-Disposition: form-data; name"}) {
        EXPECT_EQ(" error 4", read(std::string("--XY\r\n") + field + "\r\n\r\nb\r\n--XY--"))
            << field;
    }
    EXPECT_EQ(" error 4", read("--XY\r\n\r\nb\r\n--XY--"));
}

TEST(FormReaderTest, WhatIsNoFormIsRefused) {
    EXPECT_EQ(" error 0", read(""));
    EXPECT_EQ(" error 7", read("no form"));
    EXPECT_EQ(" error 4", read("--XYZ\r\n"));
    EXPECT_EQ(" error 5", read("--XY-"));
}

TEST(FormReaderTest, FormThatIsCutOffIsRefused) {
    const std::string text = kFile + "content" + kSubmit;
    for (std::size_t length = 0; length < text.size() - 2; ++length) {
        EXPECT_NE(std::string::npos, read(text.substr(0, length)).find("error")) << length;
    }
}

TEST(FormReaderTest, HeadOfAPartIsLimited) {
    const std::string field = "Content-Disposition: form-data; name=a; filename=" +
                              std::string(FormReader::kLongestHead, 'x');

    EXPECT_NE(std::string::npos, read("--XY\r\n" + field + "\r\n\r\n\r\n--XY--").find("error"));
    EXPECT_NE(std::string::npos, read("--XY\r\n" + field, 100).find("error"));
}

TEST(FormReaderTest, NumberOfPartsIsLimited) {
    std::string text;
    for (std::size_t part = 0; part <= FormReader::kMostParts; ++part) {
        text += "--XY\r\nContent-Disposition: form-data; name=a\r\n\r\nb\r\n";
    }

    EXPECT_NE(std::string::npos, read(text + "--XY--").find("error"));
}

TEST(FormReaderTest, BoundaryIsFoundInTheContentType) {
    EXPECT_EQ("----abc", formBoundary("multipart/form-data; boundary=----abc"));
    EXPECT_EQ("a b", formBoundary("Multipart/Form-Data; charset=utf-8; Boundary=\"a b\""));
    for (const char* type :
         {"", "text/plain", "multipart/form-data",
          "multipart/form-data; boundary=", "multipart/form-data; boundary=\"a\r\nb\"",
          "multipart/form-data; boundary=\"a \"", "multipart/form-data; boundary=\"a",
          "multipart/form-data; boundary="
          "12345678901234567890123456789012345678901234567890123456789012345678901"}) {
        EXPECT_FALSE(formBoundary(type)) << type;
    }
}

}  // namespace
}  // namespace kolvan::server::protocol
