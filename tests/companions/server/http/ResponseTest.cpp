#include "companions/server/http/Response.h"

#include <gtest/gtest.h>

namespace kolvan::server::http {
namespace {

TEST(ResponseTest, ProblemNamesStatusAndDetail) {
    const Response response = problemResponse(404, "No \"x\".");

    EXPECT_EQ(R"({"title":"Not Found","status":404,"detail":"No \"x\"."})",
              std::get<std::string>(response.body));
    EXPECT_EQ("application/problem+json", findField(response.fields, "content-type"));
}

TEST(ResponseTest, EventWithEverything) {
    EXPECT_EQ("id: 7\nevent: state\ndata: {}\n\n", eventText({"state", "{}", "7"}));
}

TEST(ResponseTest, EachLineOfAnEventsDataIsALineOfItsOwn) {
    EXPECT_EQ("data: a\ndata: b\ndata: \ndata: c\ndata: \n\n",
              eventText({"", "a\nb\r\n\rc\n", ""}));
}

TEST(ResponseTest, EventWithoutDataHasAnEmptyLine) {
    EXPECT_EQ("event: end\ndata: \n\n", eventText({"end", "", ""}));
}

}  // namespace
}  // namespace kolvan::server::http
