#include <gtest/gtest.h>

#include <string>

#include "platform/http/HtmlPage.h"
#include "tests/support/ExactCopy.h"

namespace tamsel {
namespace {

using namespace std::string_literals;

TEST(HtmlPage, IsToldFromAFilterList) {
  for (const std::string& page :
       {"<!DOCTYPE html>\n<title>Sign in</title>"s, "<!doctype HTML PUBLIC \"x\">"s, "<html>"s,
        "<HTML lang=en>"s, "<head/>"s, "<?xml version=\"1.0\"?><html/>"s, "<script>location='x'"s,
        "<body\n>"s, "<Title>404 Not Found</title>"s, "<meta charset=utf-8>"s, "<html"s,
        "\xEF\xBB\xBF <html>"s, "\r\n\t\f\v <html>"s, "<!-- x --><Html>"s,
        "<!--[if IE]><html class=ie><![endif]-->"s, "<!----><!-- y -->\n<!Doctype Html>"s,
        "<html>\n||ads.example^"s}) {
    EXPECT_TRUE(beginsLikeHtml(test::ExactCopy(page))) << page;
  }
  for (const std::string& list : {""s,
                                  " "s,
                                  "\xEF\xBB\xBF"s,
                                  "<"s,
                                  "<!"s,
                                  "<!--"s,
                                  "<!doctype"s,
                                  "[Adblock Plus 2.0]\n<html>"s,
                                  "! <html>"s,
                                  "! Title: x\n<!doctype html>"s,
                                  "# <html>"s,
                                  "||ads.example^\n<html>"s,
                                  "@@||a.example^"s,
                                  "##<html>"s,
                                  "example.com##^script"s,
                                  "/ads/*"s,
                                  "<header>"s,
                                  "<scripts^$third-party"s,
                                  "<ad^"s,
                                  "<!-- x -->\n||ads.example^"s,
                                  "html>"s,
                                  "&lt;html>"s,
                                  "\0<html>"s,
                                  "\xFF<html>"s,
                                  "<\0html>"s}) {
    EXPECT_FALSE(beginsLikeHtml(test::ExactCopy(list))) << list;
  }
}

}  // namespace
}  // namespace tamsel
