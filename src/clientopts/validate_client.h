// "validateqbsclient": the node's backup client options checked against the master's.
#pragma once

int validateQBSClient(const char* masterOptionFile, const char* nodeOptionFile, const char* serverName);
