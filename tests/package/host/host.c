/* A host program built against an installed tamrik: it creates a driver object in the
 * directory it is given, asks for the driver's version and a demonstration answer, and
 * prints both. */
#include <stdio.h>
#include <string.h>

#include <tamrik.h>

int main(int argc, char **argv) {
  if (argc < 2) return 2;
  /* The library loaded is of the release the header says. */
  if (strcmp(tamrik_version(), TAMRIK_VERSION_STRING) != 0) return 6;
  tamrik_com *com = tamrik_create_in(argv[1]);
  if (com == NULL) return 3;
  char version[16] = {0};
  int32_t size = sizeof version, error = 0, identity_size = 200;
  char identity[256] = {0};
  if (tamrik_kaVGetVersion(com, version, &size, &error) != 0) return 4;
  if (tamrik_kaVGetGatewayIdSring(com, identity, &identity_size, &error) != 0 || error != 0) return 5;
  printf("driver %.*s, gateway %.*s\n", (int)size, version, (int)identity_size, identity);
  tamrik_release(com);
  return 0;
}
