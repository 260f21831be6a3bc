// adresse.cpp - FetchAddress: split an address header element into the bare
// address and the phrase.
#include "message/message.h"

// Placeholder until the scanner lands: empty outputs, the end of the source.
const char *FetchAddress(const char *pc_Source, char *pc_Adresse, std::size_t t_TailleAdresse,
                         char *pc_Phrase, std::size_t t_TaillePhrase) {
    (void)t_TailleAdresse;
    (void)t_TaillePhrase;
    pc_Adresse[0] = '\0';
    pc_Phrase[0] = '\0';
    while (*pc_Source != '\0') pc_Source++;
    return pc_Source;
}
