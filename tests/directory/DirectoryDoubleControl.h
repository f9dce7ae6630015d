#pragma once

// Shared by the test double and the tests: where the double takes its answers
// from and writes what it received, in the test prefix's registry.
#define QC_DOUBLE_KEY L"Software\\Quillcast\\Tests\\DirectoryDouble"

// Values under QC_DOUBLE_KEY (all optional, all text; numbers in decimal):
//   Instances      Win32_ComputerSystem instances the query returns (default 1)
//   Domain         "Domain" as a CIM_STRING (absent: a CIM_STRING without value, VT_NULL)
//   DomainCimType  another CIM type for "Domain": then a VT_I4 of 0, or for CIM_DATETIME (101) Domain as VT_BSTR
//   PartOfDomain   "PartOfDomain" as a CIM_BOOLEAN (absent: WBEM_E_NOT_FOUND)
//   ImpersonationLevel  what the proxies report before a set (default 2, identify)
//   FailAt         one step that fails: ConnectServer, QueryBlanket, SetBlanket,
//                  ExecQuery (WBEM_E_ACCESS_DENIED), Next (WBEM_S_TIMEDOUT) or InvokeDialog (E_ACCESSDENIED)
//   Selection      the ADsPaths the picker returns, separated by ';'; "(null)" is a null path
//   Cancel         1: the picker answers S_FALSE without a data object
// Written by the double:
//   Journal        one line per call it received, in order, each ended by '\n'
