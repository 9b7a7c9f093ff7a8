// spool/HeaderScanner.h: ScanHeaders reads the top headers from where the
// envelope ended: fills a missing sender or missing recipients from From and
// To, and runs the secure-hash gate. True when a header X-Vorex-Hash carried
// the configured hash; its line has then been cut out of the spool file.
// Throws std::logic_error without recipients, std::domain_error on failed
// file operations during the removal.
#pragma once

#include <cstdio>

class Mail;

bool ScanHeaders(FILE* stream, const char* spoolPath, Mail& mail, bool& senderFound,
                 bool& recipientFound);
