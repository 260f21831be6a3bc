// entete.cpp - header line lists and the message reader.
#include "message/message.h"

Entete *gpet_EnteteMessOrigine = nullptr;
Entete *gpet_EnteteMess = nullptr;
