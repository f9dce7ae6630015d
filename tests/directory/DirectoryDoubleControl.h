#pragma once

// Shared by the test double and the tests: where the double takes its answers
// from and writes what it received, in the test prefix's registry.
#define QC_DOUBLE_KEY L"Software\\Quillcast\\Tests\\DirectoryDouble"

// Values under QC_DOUBLE_KEY (all optional):
//   Instances      DWORD  Win32_ComputerSystem instances the query returns (default 1)
//   Domain         SZ     "Domain" as a CIM_STRING (absent: a CIM_STRING without value, VT_NULL)
//   DomainCimType  DWORD  another CIM type for "Domain": then a VT_I4 of 0
//   PartOfDomain   DWORD  "PartOfDomain" as a CIM_BOOLEAN (absent: WBEM_E_NOT_FOUND)
//   ImpersonationLevel DWORD  what the proxies report before a set (default 2, identify)
//   FailAt         SZ     one step that fails: ConnectServer, QueryBlanket, SetBlanket,
//                         ExecQuery, Next (WBEM_E_ACCESS_DENIED) or InvokeDialog (E_ACCESSDENIED)
//   Selection      MULTI_SZ  the ADsPaths the picker returns; "(null)" is a null path
//   Cancel         DWORD  1: the picker answers S_FALSE without a data object
// Written by the double:
//   Journal        MULTI_SZ  one line per call it received, in order
