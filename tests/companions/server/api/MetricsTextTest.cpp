#include "companions/server/api/MetricsText.h"

#include <gtest/gtest.h>

namespace kolvan::server::api {
namespace {

TEST(MetricsTextTest, FigureHasItsHelpItsTypeAndItsSamples) {
    MetricsText text;

    text.begin("polls", MetricsText::Kind::Gauge, "Held polls.");
    text.sample(3);
    text.begin("answers_total", MetricsText::Kind::Counter, "Answers.");
    text.sample(18'446'744'073'709'551'615U, {{"class", "2xx"}, {"method", "GET"}});
    text.sample(0, {{"class", "5xx"}, {"method", "GET"}});

    EXPECT_EQ(
        "# HELP polls Held polls.\n"
        "# TYPE polls gauge\n"
        "polls 3\n"
        "# HELP answers_total Answers.\n"
        "# TYPE answers_total counter\n"
        "answers_total{class=\"2xx\",method=\"GET\"} 18446744073709551615\n"
        "answers_total{class=\"5xx\",method=\"GET\"} 0\n",
        text.text());
}

TEST(MetricsTextTest, ValuesOfLabelsCannotLeaveTheirQuotes) {
    MetricsText text;
    text.begin("agents", MetricsText::Kind::Gauge, "Agents.");

    text.sample(1, {{"name", "a\"} 99\nagents{b=\"\\"}});

    EXPECT_EQ(
        "# HELP agents Agents.\n"
        "# TYPE agents gauge\n"
        "agents{name=\"a\\\"} 99\\nagents{b=\\\"\\\\\"} 1\n",
        text.text());
}

TEST(MetricsTextTest, ValuesOfLabelsAreMadeUtf8) {
    MetricsText text;
    text.begin("agents", MetricsText::Kind::Gauge, "Agents.");

    text.sample(1, {{"name", "\xFF"}});

    EXPECT_EQ(
        "# HELP agents Agents.\n"
        "# TYPE agents gauge\n"
        "agents{name=\"\xEF\xBF\xBD\"} 1\n",
        text.text());
}

}  // namespace
}  // namespace kolvan::server::api
