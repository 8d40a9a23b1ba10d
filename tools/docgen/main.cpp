// tamrik-docgen: the pages of docs/ that are made from the code. "capi" (the default) writes
// docs/capi.md, "result-codes" docs/result-codes.md, "services" docs/services.md, all to stdout.
#include <cstdio>
#include <string>

int CapiReferencePage();
int ResultCodesPage();
int ServicesPage();

int main(int argc, char** argv) {
  const std::string page = argc > 1 ? argv[1] : "capi";
  if (page == "capi") return CapiReferencePage();
  if (page == "result-codes") return ResultCodesPage();
  if (page == "services") return ServicesPage();
  std::fprintf(stderr, "tamrik-docgen: unknown page '%s' (capi, result-codes or services)\n", page.c_str());
  return 2;
}
