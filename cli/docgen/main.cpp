// tamrik-docgen: the pages of docs/ that are made from the code. "capi" (the default) writes
// docs/capi.md, "result-codes" docs/result-codes.md, both to stdout.
#include <cstdio>
#include <string>

int CapiReferencePage();
int ResultCodesPage();

int main(int argc, char** argv) {
  const std::string page = argc > 1 ? argv[1] : "capi";
  if (page == "capi") return CapiReferencePage();
  if (page == "result-codes") return ResultCodesPage();
  std::fprintf(stderr, "tamrik-docgen: unknown page '%s' (capi or result-codes)\n", page.c_str());
  return 2;
}
