#include "files.h"

#include <cstdio>
#include <vector>

namespace tpcsdk::emulator {
namespace {

// `text` as a PDF literal string: parentheses and backslashes escaped.
std::string PdfText(const std::string& text) {
  std::string out = "(";
  for (char c : text) {
    if (c == '(' || c == ')' || c == '\\') out += '\\';
    out += (c >= 0x20 && c < 0x7f) ? c : '?';
  }
  return out + ")";
}

}  // namespace

std::string MakePdf(const std::string& title, const std::string& line) {
  const std::string content = "BT /F1 18 Tf 72 760 Td " + PdfText(title) + " Tj 0 -28 Td /F1 12 Tf " +
                              PdfText(line) + " Tj ET\n";
  const std::string objects[] = {
      "<< /Type /Catalog /Pages 2 0 R >>",
      "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
      "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] "
      "/Resources << /Font << /F1 4 0 R >> >> /Contents 5 0 R >>",
      "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
      "<< /Length " + std::to_string(content.size()) + " >>\nstream\n" + content + "endstream",
  };
  std::string pdf = "%PDF-1.4\n";
  std::vector<size_t> offsets;
  for (size_t i = 0; i < sizeof(objects) / sizeof(objects[0]); ++i) {
    offsets.push_back(pdf.size());
    pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  const size_t xref = pdf.size();
  pdf += "xref\n0 " + std::to_string(offsets.size() + 1) + "\n0000000000 65535 f \n";
  for (size_t off : offsets) {
    char entry[32];
    std::snprintf(entry, sizeof(entry), "%010zu 00000 n \n", off);
    pdf += entry;
  }
  pdf += "trailer\n<< /Size " + std::to_string(offsets.size() + 1) + " /Root 1 0 R >>\nstartxref\n" +
         std::to_string(xref) + "\n%%EOF\n";
  return pdf;
}

std::string PatternBytes(size_t n) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>(i % 251);
  return out;
}

}  // namespace tpcsdk::emulator
