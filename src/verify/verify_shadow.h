// "verifyshadow": a shadow database checked against a prep list or the server query.
#pragma once

int verifyShadow(const char* shadowFile, const char* prepListFile, const char* outputFile,
                 const char* qbsQueryFile, const char* sortDirectory);
