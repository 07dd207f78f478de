#include "platform/utf8.h"

#include <boost/locale/encoding_utf.hpp>
#include <stdexcept>

namespace platform {
namespace {

using boost::locale::conv::utf_to_utf;

}  // namespace

std::string toUtf8(const std::wstring& text) {
  try {
    return utf_to_utf<char>(text, boost::locale::conv::stop);
  } catch (const boost::locale::conv::conversion_error&) {
    throw std::range_error("not a well-formed text: " + shownUtf8(text));
  }
}

std::wstring fromUtf8(std::string_view text) {
  try {
    return utf_to_utf<wchar_t>(text.data(), text.data() + text.size(), boost::locale::conv::stop);
  } catch (const boost::locale::conv::conversion_error&) {
    throw std::range_error("not UTF-8: " +
                           utf_to_utf<char>(text.data(), text.data() + text.size(), boost::locale::conv::skip));
  }
}

std::string shownUtf8(const std::wstring& text) { return utf_to_utf<char>(text, boost::locale::conv::skip); }

}  // namespace platform
